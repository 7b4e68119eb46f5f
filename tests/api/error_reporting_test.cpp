// The error-reporting routine: the description it builds from our table, the system and the
// fallbacks, and what it leaves as the thread's error object.
#include "api/error_reporting.h"

#include <gtest/gtest.h>

#include <string>

#include "api/live_api.h"
#include "platform/automation.h"
#include "platform/system_message.h"
#include "platform/wide_string.h"
#include "vekxapi/result_codes.h"

namespace qv {
namespace {

using apitest::TakeErrorText;

TEST(ErrorReporting, DescriptionsComeFromTheTableTheSystemOrTheFallbacks) {
  struct Case {
    HRESULT code;
    std::u16string context;
    std::u16string expected;
  };
  // Wine's message table lacks some standard codes; there the fallback shows.
  const std::u16string pointer_text =
      platform::SystemMessageText(E_POINTER).value_or(u"Unknown error 0x80004003");
  const Case cases[] = {
      {KXAPI_COMMS_ERR_NO_ENTRY, u"no kit 7", u"Target error - The entry does not exist. no kit 7"},
      {KXAPI_COMMS_ERR_NO_ENTRY, u"", u"Target error - The entry does not exist."},
      {E_POINTER, u"", pointer_text},
      {E_POINTER, u"ctx", pointer_text + u" ctx"},
      // Our range without a text: automation's name for it.
      {static_cast<HRESULT>(0x800402A9), u"", u"IDispatch error #169"},
      {static_cast<HRESULT>(0x8004F000), u"x", u"IDispatch error #60928 x"},
      // Nobody's code.
      {static_cast<HRESULT>(0xA0990001), u"", u"Unknown error 0xA0990001"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(DescribeError(c.code, c.context), c.expected) << std::hex << c.code;
  }
}

TEST(ErrorReporting, AFailureBecomesTheThreadsErrorObjectAndASuccessLeavesIt) {
  SetErrorInfo(0, nullptr);
  EXPECT_EQ(ReportError(KXAPI_COMMS_ERR_NO_ENTRY, u"server says no"), KXAPI_COMMS_ERR_NO_ENTRY);
  EXPECT_EQ(TakeErrorText(), "Target error - The entry does not exist. server says no");

  EXPECT_EQ(ReportError(KXAPI_TIMEOUT), KXAPI_TIMEOUT);
  EXPECT_EQ(ReportError(S_FALSE, u"ignored"), S_FALSE);  // the earlier failure stays
  EXPECT_EQ(ReportError(S_OK), S_OK);
  EXPECT_EQ(TakeErrorText(), platform::Utf16ToUtf8(DescribeError(KXAPI_TIMEOUT, u"")));
  EXPECT_EQ(TakeErrorText(), "");  // taken: nothing left
}

}  // namespace
}  // namespace qv
