#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "api/error_descriptions.h"
#include "vekxapi/result_codes.h"

namespace qv {
namespace {

constexpr int32_t Code(uint32_t value) {
  return static_cast<int32_t>(value);
}

std::u16string Widen(std::string_view ascii) {
  return std::u16string(ascii.begin(), ascii.end());
}

// Every value the code list states outright, with the text where it gives one: the telling texts,
// both names of each DOKAN/FSD pair, the range bounds, and the codes other parts of the library
// refer to by number. Values between these points follow from the order of the list.
struct StatedCode {
  eErrorCode code;
  const char* name;
  uint32_t value;
  const char16_t* text;  // null where only the value is stated
};
#define STATED(NAME, VALUE, TEXT) \
  { NAME, #NAME, VALUE, TEXT }
constexpr StatedCode kStated[] = {
    STATED(KXAPI_SUCCESS, 0x00000000, u"Success."),
    STATED(KXAPI_ERROR_FIRST, 0x80040200, u"Defines the minimum error code value."),
    STATED(KXAPI_UNKNOWN, 0x80040201, u"Unknown error."),
    STATED(KXAPI_NOT_CONNECTED, 0x80040202, u"KXAPI_NOT_CONNECTED"),
    STATED(KXAPI_SERVER_INITIALIZATION_FAILURE, 0x80040208,
           u"KX API was unable to run the vesta-kx.exe server process."),
    STATED(KXAPI_INVALID_RESPONSE_TYPE, 0x8004020B,
           u"The response returned to the API does not correspond to the request."),
    STATED(KXAPI_ALREADY_REGISTERED, 0x8004020C, nullptr),
    STATED(KXAPI_SERVER_OPEN_FAILED, 0x80040216, u"Failed to open file."),
    STATED(KXAPI_COMMS_ERR_RESOURCE_SHORTAGE, 0x8004021A,
           u"Target error - Insufficient resources."),
    STATED(KXAPI_COMMS_ERR_NO_ENTRY, 0x8004021B, u"Target error - The entry does not exist."),
    STATED(KXAPI_COMMS_ERR_BUSY, 0x8004021D, u"Target error -  The resource is busy."),
    STATED(KXAPI_COMMS_ERR_MSG_TOO_BIG, 0x80040226, u"Message too big."),
    STATED(KXAPI_COMMS_ERR_PAYLOAD_TOO_SMALL, 0x80040227, u"Payload too small."),
    STATED(KXAPI_COMMS_ERR_NOT_STOPPED, 0x80040240, u"Target error - PRX is not stopped."),
    STATED(KXAPI_COMMS_ERR_TARGET_NOT_ON_LAST_KNOWN_HOST, 0x80040242,
           u"Target not connected to last known host."),
    STATED(KXAPI_COMMS_ERR_TARGET_IN_USE, 0x80040243, u"Target in use."),
    STATED(KXAPI_INVALID_PATH, 0x80040249, u"The given path is invalid."),
    STATED(KXAPI_UPF_SEGMENT_NOT_FOUND, 0x8004024C,
           u"The relevant section of the UPF was not found."),
    STATED(KXAPI_UPDATER_RETURNED_ERROR, 0x8004024D, u"The updater tool returned an error."),
    STATED(KXAPI_COMMS_ERR_EMPTY_TARGET_LIST, 0x8004024E, u"Server error - Empty target list."),
    STATED(KXAPI_COMMS_ERR_UNEXPECTED_SETTING_TYPE, 0x8004024F,
           u"Server error - Unexpected setting type in reply."),
    STATED(KXAPI_SERVER_DOKAN_INIT_FAILED, 0x8004025D, nullptr),
    STATED(KXAPI_SERVER_FSD_INIT_FAILED, 0x8004025D,
           u"File System Driver failed to start or is not properly installed. Reinstall driver and "
           u"retry."),
    STATED(KXAPI_ERR_DOKAN_NOT_RUNNING, 0x80040270, nullptr),
    STATED(KXAPI_ERR_FSD_NOT_RUNNING, 0x80040270, u"File System Driver not running."),
    STATED(KXAPI_INCOMPATIBLE_CLIENT, 0x8004027D,
           u"Client compatibility unknown (see IVEKXAPI.CheckCompatibility)."),
    STATED(KXAPI_INCOMPATIBLE_CLIENT_TOO_OLD, 0x8004027E,
           u"The client requires an older version of KX API, (see IVEKXAPI.CheckCompatibility)."),
    STATED(KXAPI_INCOMPATIBLE_CLIENT_TOO_NEW, 0x8004027F,
           u"The client requires a newer version of KX API, (see IVEKXAPI.CheckCompatibility)."),
    STATED(KXAPI_SHUTTING_DOWN, 0x80040282, u"KXAPI is shutting down."),
    STATED(KXAPI_ERR_SUBNET_MASK_NOT_KNOWN, 0x800402AA,
           u"Target subnet mask not known.  You can explicitly set the subnet mask with; "
           u"vesta-ctrl set-subnet-mask."),
    STATED(KXAPI_SERVER_DOKAN_INVALID_DRIVE, 0x800402C4, nullptr),
    STATED(KXAPI_SERVER_FSD_INVALID_DRIVE, 0x800402C4,
           u"File System Drive letter is invalid or not available."),
    STATED(KXAPI_SERVER_DOKAN_MAIN_STOPPED, 0x800402C5, nullptr),
    STATED(KXAPI_SERVER_FSD_MAIN_STOPPED, 0x800402C5,
           u"File System Driver main thread stopped unexpectedly."),
    STATED(KXAPI_SERVER_DOKAN_START_TIMEOUT, 0x800402C6, nullptr),
    STATED(KXAPI_SERVER_FSD_START_TIMEOUT, 0x800402C6,
           u"File System Driver failed to start in a timely manner."),
    STATED(KXAPI_COMMS_ERR_TRICKLE_NO_SESSION, 0x800402C8,
           u"No Trickle session active or the title is not a Trickle title."),
    STATED(KXAPI_SYSTEM_ERRNO_UNKNOWN, 0x800402CB,
           u"System error - Unknown error or missing error mapping."),
    STATED(KXAPI_SYSTEM_ERRNO_EAFNOSUPPORT, 0x800402CC,
           u"System error - Address family not supported."),
    STATED(KXAPI_COMMS_ERR_TRICKLE_CHUNK_NOT_ACCESSIBLE, 0x80040321,
           u"Chunk containing specified file is not accessible (whole or part of chunk is not "
           u"downloaded)."),
    STATED(KXAPI_COMMS_ERR_TRICKLE_FILE_NOENT, 0x80040322,
           u"Specified file does not exist in the file-chunk mapping (the file is missing in "
           u"trickle-chunks.xml?)."),
    STATED(KXAPI_CLIENT_NOT_ADVISED, 0x80040325,
           u"The client has not advised for these notifications."),
    STATED(KXAPI_ERR_PROCESS_OWNERSHIP_TRANSFER_IN_PROGRESS, 0x8004032C,
           u"Process ownership transfer in progress."),
    STATED(KXAPI_ERR_NOT_PROCESS_OWNER, 0x8004032D, u"Not the current owner of the process."),
    STATED(KXAPI_ERR_FS_DATA_BROKEN, 0x80040360, u"Target error - The RVS image is broken."),
    STATED(KXAPI_SERVER_INITIALIZATION_CHECK_FAILED, 0x80040390,
           u"KX API was unable to find the vesta-kx.exe server process."),
    STATED(KXAPI_COMMS_ERR_OLD_CMD_NEW_DEVKIT, 0x8004039C, nullptr),
    STATED(KX_API_MAX_FILE_SIZE_EXCEEDED, 0x800403A1, u"Maximum file size exceeded."),
    STATED(KXAPI_ERR_INVALID_DISTRIBUTED_COPY_ID, 0x800403A5,
           u"A matching distributed copy operation was not found."),
    STATED(KXAPI_ERR_NOT_RVS_COMPRESSED, 0x800403A6,
           u"The specified file was not a valid RVS archive file."),
    STATED(KXAPI_COMMS_ERR_XML_FORMAT, 0x800403BF,
           u"Unable to spawn the application or process because there was an error parsing the "
           u"trickle-chunks.xml file."),
    STATED(KXAPI_COMMS_ERR_TIMEOUT_FIRST, 0x80041001, u"Lower bound of timeout error values."),
    STATED(KXAPI_COMMS_ERR_TIMEOUT_UDP, 0x8004100C,
           u"Target failed to reply, or command failed to reach target."),
    STATED(KXAPI_COMMS_ERR_TIMEOUT_TRCMP, 0x8004100D, u"Target failed to reply (Trickle)."),
    STATED(KXAPI_COMMS_ERR_TIMEOUT_LAST, 0x80041013, u"Upper bound of timeout error values."),
    STATED(KXAPI_ERROR_LAST, 0x80041014, u"Defines the maximum error code value."),
};
#undef STATED

TEST(ResultCodesTest, CodesWithoutARowHaveNoTextAndNoNameAndUnknownNamesNoCode) {
  constexpr uint32_t kUnknown[] = {
      0x800402A9, 0x800402C1, 0x800402C2, 0x800402C3,  // unassigned inside the main range
      0x800401FF, 0x800403C0, 0x80041000, 0x80041015,  // just outside the two ranges
      0x00040201, 0x80050201, 0x80040000,              // KXAPI_UNKNOWN's low bits, other facility
      0x80070057, 0x80004003, 0x8000FFFF, 0x00000001,  // standard platform codes
      0xFFFFFFFF,
  };
  for (uint32_t value : kUnknown) {
    SCOPED_TRACE(::testing::Message() << std::hex << value);
    EXPECT_EQ(LookupErrorDescription(Code(value)), std::nullopt);
    EXPECT_EQ(ErrorCodeName(Code(value)), std::nullopt);
    EXPECT_EQ(ExpandedErrorDescription(Code(value)), std::nullopt);
  }
  for (std::string_view name : {"", "KXAPI_", "kxapi_timeout", "KXAPI_TIMEOUT ", "E_INVALIDARG",
                                "KXAPI_COMMS_ERR_TIMEOUT_"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(ErrorCodeFromName(name), std::nullopt);
  }
}

// Every row of the table, as the library sees it.
struct Row {
  std::string_view name;
  uint32_t value;
  bool alias;
};
constexpr Row kAllRows[] = {
#define VEKX_RESULT(NAME, VALUE, TEXT) {#NAME, VALUE, false},
#define VEKX_RESULT_ALIAS(NAME, VALUE) {#NAME, VALUE, true},
#include "vekxapi/result_codes.def"
};

bool StartsWith(std::u16string_view text, std::u16string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// "<prefix>One sentence." - one blank after the dash, a capital, a single full stop at the end
// and none inside.
void ExpectPrefixedSentence(std::u16string_view text, std::u16string_view prefix) {
  ASSERT_TRUE(StartsWith(text, prefix));
  const std::u16string_view sentence = text.substr(prefix.size());
  ASSERT_GE(sentence.size(), 2u);
  EXPECT_TRUE(sentence.front() >= u'A' && sentence.front() <= u'Z');
  EXPECT_EQ(sentence.back(), u'.');
  EXPECT_EQ(sentence.find(u'.'), sentence.size() - 1);
  EXPECT_EQ(sentence.find(u"  "), std::u16string_view::npos);
}

// Every stated value holds; every name and code find each other; every text is the stated one or
// follows its family's pattern, with no percent sign, so that expanding it leaves it as it is.
TEST(ResultCodesTest, StatedValuesAndEveryRowsNameCodeAndTextAgree) {
  std::map<uint32_t, std::u16string_view> stated_texts;
  for (const StatedCode& s : kStated) {
    EXPECT_EQ(static_cast<uint32_t>(s.code), s.value) << s.name;
    if (s.text != nullptr) stated_texts[s.value] = s.text;
  }
  std::map<std::u16string_view, std::string_view> seen;  // text -> name, to catch copied texts
  for (const Row& row : kAllRows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ErrorCodeFromName(row.name), Code(row.value));
    if (row.alias) continue;  // the named row of the same value is checked
    EXPECT_EQ(ErrorCodeName(Code(row.value)), row.name);
    const std::optional<std::u16string_view> text = LookupErrorDescription(Code(row.value));
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(text->find(u'%'), std::u16string_view::npos);
    EXPECT_EQ(ExpandedErrorDescription(Code(row.value)), std::u16string(*text));
    EXPECT_TRUE(seen.emplace(*text, row.name).second) << "same text as " << seen[*text];

    const std::u16string name = Widen(row.name);
    if (auto stated = stated_texts.find(row.value); stated != stated_texts.end()) {
      EXPECT_EQ(*text, stated->second);
    } else if (row.value > 0x80041001u && row.value < 0x80041013u) {
      EXPECT_EQ(*text, u"Target failed to reply - " + name + u".");
    } else if (StartsWith(name, u"KXAPI_SYSTEM_ERRNO_")) {
      ExpectPrefixedSentence(*text, u"System error - ");
    } else if (StartsWith(name, u"KXAPI_COMMS_ERR") || StartsWith(name, u"KXAPI_ERR_FS_")) {
      ExpectPrefixedSentence(*text, u"Target error - ");
    } else {
      EXPECT_EQ(*text, name + u".");
    }
  }
}

}  // namespace
}  // namespace qv
