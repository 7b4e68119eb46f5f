// The notification catalogue: every notification the factory makes, its encoding, and the layouts
// that more than one end of the wire depends on.
#include "requests/notifications.h"
#include "support/field_filler.h"
#include "support/wire_bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <sstream>
#include <string>

namespace qv {
namespace {

using testing::ByteVector;
using testing::DecodeAll;
using testing::Encode;
using testing::HandBytes;

// The wire names and numbers of the notification catalogue, copied by hand rather than generated
// from notifications.def, so that a name or number mistyped there shows up here.
constexpr const char* kCatalogue = R"(
CACHE_UPDATE 0x0EB0141C; CACHE_CLEARED 0x71D7BFE9; CONSOLE_OUTPUT 0x58386DC9;
BUFFER_READY 0x209FA434; RECORDED_DATA 0x701766A7; DATA_READY 0x31C90A34;
RECORDING_ENDED 0x56000F42; STOP_NOTIFICATION 0x15E7F412; PROCESS_CREATE 0x39FCB498;
PROCESS_EXIT 0x37C57C5E; PROCESS_KILL 0x37C88730; DYNAMIC_LIBRARY_LOAD 0x2321485F;
DYNAMIC_LIBRARY_UNLOAD 0x05877522; THREAD_CREATE 0x13373F51; THREAD_EXIT 0x593C04D7;
COREDUMP_COMPLETED 0x75AAD6C1; COREDUMP_IN_PROGRESS 0x2C6A9530; PROCESS_LOADING 0x27190662;
LOAD_EXEC 0x693CADEA; LOAD_EXEC_FAIL 0x727DA006; LOAD_EXEC_TIMEOUT 0x5DBBF4F1;
APPLICATION_SPAWN 0x74001722; APPLICATION_KILL 0x6C3990C5; APPLICATION_SUSPENDED 0x0CC355A4;
APPLICATION_RESUMED 0x0F04156E; TRACE_FULL 0x794E3407; TRACE_WRITING_STOPPED 0x56753D17;
PROTOCOL_STATUS 0x1129DA1B; FILE_COPY_SKIPPED 0x17ED2D10; FILE_COPY_PROGRESS 0x79022C15;
FILE_COPY_PROGRESS_ERROR 0x435B12DF; FILE_COPY_START 0x4B07D78E; FILE_COPY_END 0x162A5217;
FILE_COPY_OVERALL_PROGRESS 0x15D5C3EA; FILE_ERROR 0x1D6F7BCF; STATUS_UPDATE 0x52D9ABAC;
TRICKLE_DOWNLOAD_PROGRESS 0x55CB3E5E; TRICKLE_DOWNLOAD_ERROR 0x0425BE93;
TRICKLE_DOWNLOAD_TIMEOUT 0x11DADD70; LOCK_RELEASE 0x2AC413CF; LOCK_STATUS_CHANGED 0x08104E5C;
OWNERSHIP_REQUEST 0x47A45D6D; TARGET_ADDED 0x15DE5E3E; DEFAULT_TARGET_CHANGED 0x3452855B;
TARGET_DELETED 0x70C3DA23; TARGET_FIND_PROGRESS 0x1476EA22; FILE_SKIPPED_ERROR 0x4190F93F;
MIRADOR_TARGET_FIND_PROGRESS 0x72F23B6F; USB_TARGET_PLUGGED_IN 0x4C64C9D5;
USB_TARGET_UNPLUGGED 0x771BC421; IP_CHANGED 0x2595AC68; COMMS_DISCONNECT 0x5C8D5ACE;
FORCED_POWER_OFF 0x74383B00; FILE_SERVING_ROOT_CHANGED 0x64463091;
FILE_SERVING_CASE_SENSITIVITY_CHANGED 0x3263CA74; PROGRESS 0x2229981A; CONNECT 0x342EB5AF;
CONNECTED 0x7AB2EAD8; DISCONNECT 0x00D016EF; POWER_STATE 0x3C4F7733;
DISPLAY_POWER_STATE 0x57D91D29; SETTINGS_CHANGED 0x1D5FB540; NAME_UPDATE 0x59383C69;
MULTI_PHASE_PROGRESS 0x2E04E6B6; MULTI_PHASE_PROGRESS_ERROR 0x40B09A20;
UPDATE_PROGRESS 0x09D7129D; UPDATE_ERROR 0x4F7CE332; BUSY 0x7C834188; IDLE 0x7C86CEE3;
FORCE_DISCONNECTED 0x768D5927; REBOOT_INTO_RELEASE_MODE 0x23213110; SAVE_DATA_PROGRESS 0x585D0B03;
SAVE_DATA_ERROR 0x04B14558; SAVE_DATA_TIMEOUT 0x63632975; MOUNT_PROGRESS 0x24D9636D;
MOUNT_ERROR 0x10246602; UNMOUNT_PROGRESS 0x6934A510; UNMOUNT_ERROR 0x430F5285;
USB_STATUS 0x02D26753; HOST_NAME_CHANGED 0x2471B9EE; USB_MASS_STORAGE_STATUS 0x2C62E63C;
MOUNT_BD_PROGRESS 0x5549A853; MOUNT_BD_ERROR 0x201264A8; UNMOUNT_BD_PROGRESS 0x1D7BDEB6;
UNMOUNT_BD_ERROR 0x396A7DEB; APP_DATA_UNMOUNTED 0x4DB2587F; MOVE_TITLE_PROGRESS 0x6E19C3F3;
MOVE_TITLE_ERROR 0x094F2448; MOVE_TITLE_TIMEOUT 0x06F48465; EVENT_VIEWER_XML_CHANGED 0x2B3546D4;
EVENT_FILTER_CHANGED 0x371D3357; QUERY_ERROR 0x56AEC0A5; NOTIFICATION_EVENT 0x2E87902E;
DEVICE_READY 0x3EF501AA;)";

std::map<uint32_t, std::u16string> ParseCatalogue() {
  std::map<uint32_t, std::u16string> rows;
  std::istringstream in(kCatalogue);
  std::string name, number;
  while (in >> name >> number)
    rows.emplace(std::stoul(number, nullptr, 16), std::u16string(name.begin(), name.end()));
  return rows;
}

// Hand-written bodies decode field by field (shown by the rendering) and encode back to the same
// bytes. The intermediate bases lay down their fields before the derived class's own.
TEST(NotificationLayoutTest, HandWrittenBodiesDecodeInTheirFieldOrder) {
  using namespace std::string_literals;
  const struct {
    uint32_t type_number;
    ByteVector wire;
    std::string rendered;
  } kCases[] = {
      // 24 bytes: target key, total size, copied size, copy operation id.
      {CFileCopyOverallProgressNotification::kTypeNumber,
       HandBytes()
           .U32(0xA1A2A3A4)
           .U64(0x0102030405060708, 0x1112131415161718)
           .U32(0xB1B2B3B4)
           .bytes(),
       "{ TargetKey:2711790500 TotalSize:72623859790382856 CopiedSize:1230066625199609624 "
       "Id:2981278644 }"},
      // The text keeps what follows an embedded zero.
      {CConsoleOutputNotification::kTypeNumber,
       HandBytes()
           .U32(3, 144, 129, 0x51, 0x52)
           .U64(0x0000000900000008)
           .Text(std::u16string(u"ab\0cd", 5))
           .bytes(),
       "{ TargetKey:3 Port:144 Category:129 ProcessId:81 ThreadId:82 Timestamp:38654705672 "
       "Text:ab\0cd }"s},
      // Target key, description, phase, number of phases, percentage (passed through above 100),
      // flags, estimated duration, copy operation id.
      {CFileCopyProgressNotification::kTypeNumber,
       HandBytes().U32(7).Text(u"Copying").U32(2, 3, 140, 0x10, 90, 0xC0FE).bytes(),
       "{ TargetKey:7 Description:Copying Phase:2 NumberOfPhases:3 Percentage:140 Flags:16 "
       "EstimatedDuration:90 Id:49406 }"},
      // UpdateError's event lists PowerRequest and State first, but the result pair leads on the
      // wire: target key, result, raw result, power request, state.
      {CUpdateErrorNotification::kTypeNumber, HandBytes().U32(5, 0x80040215, 0x2A, 1, 4).bytes(),
       "{ TargetKey:5 Result:2147746325 RawResult:42 PowerRequest:1 State:4 }"},
  };
  for (const auto& c : kCases) {
    const auto notification = NotificationFactory().Create(c.type_number);
    ASSERT_NE(notification, nullptr);
    ASSERT_TRUE(DecodeAll(c.wire, *notification)) << notification->ToString();
    EXPECT_EQ(notification->ToString(), c.rendered);
    EXPECT_EQ(Encode(*notification), c.wire) << notification->ToString();
  }
}

template <class Notification>
bool Populate(CNotification& message) {
  auto* notification = dynamic_cast<Notification*>(&message);
  if (notification != nullptr) Notification::VisitFields(*notification, testing::FieldFiller());
  return notification != nullptr;
}

std::map<uint32_t, bool (*)(CNotification&)> Populators() {
  return {
#define VEKX_NOTIFICATION(Camel, WIRE, number, Base, Group, Slot, SinkInterface, SinkMethod, \
                          DispId, fields)                                                    \
  {number, &Populate<C##Camel##Notification>},
#include "requests/notifications.def"
  };
}

// Every notification the factory makes carries the catalogue's name and number, round-trips
// empty and with every field set, and no proper prefix of its full body decodes.
TEST(NotificationCatalogueTest, FactoryHoldsExactlyTheCatalogueAndEachRoundTrips) {
  const auto& factory = NotificationFactory();
  const auto populators = Populators();
  std::map<uint32_t, std::u16string> by_number;
  for (const auto& entry : factory.Entries()) {
    SCOPED_TRACE(std::string(entry.name.begin(), entry.name.end()));
    by_number[entry.type_number] = entry.name;
    EXPECT_EQ(factory.NameOf(entry.type_number), entry.name);
    const auto populator = populators.find(entry.type_number);
    ASSERT_NE(populator, populators.end());

    const auto empty = factory.Create(entry.type_number);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->GetTypeNumber(), entry.type_number);
    EXPECT_EQ(empty->GetName(), entry.name);
    const auto full = factory.Create(entry.type_number);
    ASSERT_TRUE(populator->second(*full));
    const ByteVector empty_wire = Encode(*empty);
    const ByteVector full_wire = Encode(*full);
    EXPECT_NE(empty_wire, full_wire);

    for (const auto& [original, wire] : {std::pair{empty, empty_wire}, {full, full_wire}}) {
      // The key is the body's first field, whichever base declares it.
      ASSERT_GE(wire.size(), 4u);
      uint32_t leading_word = 0;
      std::memcpy(&leading_word, wire.data(), 4);
      EXPECT_EQ(original->GetTargetKey(), leading_word);

      const auto decoded = factory.Create(entry.type_number);
      ASSERT_TRUE(DecodeAll(wire, *decoded));
      EXPECT_EQ(Encode(*decoded), wire);
      EXPECT_EQ(decoded->ToString(), original->ToString());
      EXPECT_EQ(decoded->GetTargetKey(), original->GetTargetKey());
    }

    for (size_t length = 0; length < full_wire.size(); ++length) {
      MessageBuffer shorter(full_wire.data(), length);
      EXPECT_FALSE(factory.Create(entry.type_number)->Deserialize(shorter)) << length;
    }
  }
  EXPECT_EQ(by_number, ParseCatalogue());
}

}  // namespace
}  // namespace qv
