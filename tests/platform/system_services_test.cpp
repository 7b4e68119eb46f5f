// System message texts and environment expansion: Windows asks the system, POSIX reproduces
// its answers.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/automation.h"
#include "platform/environment.h"
#include "platform/system_message.h"
#include "platform/wide_string.h"
#include "test_support.h"

namespace qv::platform {
namespace {

struct MessageCase {
  HRESULT code;
  const char16_t* windows;  // nullptr: no text at all
  // Wine words its system messages differently and has none for most COM and automation codes;
  // under Wine this text is expected instead, and nullptr means no text at all.
  const char16_t* wine;
};

TEST(SystemMessage, StandardCodesHaveTheirWindowsTextAndUnknownCodesNone) {
  const MessageCase kCases[] = {
      {S_OK, u"The operation completed successfully.", u"Success."},
      {S_FALSE, u"Incorrect function.", u"Invalid function."},
      {E_POINTER, u"Invalid pointer", nullptr},
      {E_INVALIDARG, u"The parameter is incorrect.", u"Invalid parameter."},
      {E_NOTIMPL, u"Not implemented", u"Not implemented."},
      {E_UNEXPECTED, u"Catastrophic failure", nullptr},
      {E_OUTOFMEMORY, u"Not enough memory resources are available to complete this operation.",
       u"Out of memory."},
      {E_FAIL, u"Unspecified error", u"Call failed."},
      {E_NOINTERFACE, u"No such interface supported", nullptr},
      {E_ABORT, u"Operation aborted", nullptr},
      {E_ACCESSDENIED, u"Access is denied.", u"Access denied."},
      {E_HANDLE, u"The handle is invalid.", u"Invalid handle."},
      {DISP_E_MEMBERNOTFOUND, u"Member not found.", nullptr},
      {DISP_E_TYPEMISMATCH, u"Type mismatch.", nullptr},
      {DISP_E_UNKNOWNNAME, u"Unknown name.", nullptr},
      {DISP_E_BADVARTYPE, u"Bad variable type.", nullptr},
      {DISP_E_EXCEPTION, u"Exception occurred.", nullptr},
      {DISP_E_OVERFLOW, u"Out of present range.", nullptr},
      {DISP_E_BADINDEX, u"Invalid index.", nullptr},
      {DISP_E_ARRAYISLOCKED, u"Memory is locked.", nullptr},
      {DISP_E_BADPARAMCOUNT, u"Invalid number of parameters.", nullptr},
      {DISP_E_PARAMNOTFOUND, u"Parameter not found.", nullptr},
      {CLASS_E_NOAGGREGATION, u"Class does not support aggregation (or class object is remote)",
       nullptr},
      {CLASS_E_CLASSNOTAVAILABLE, u"ClassFactory cannot supply requested class", nullptr},
      {TYPE_E_ELEMENTNOTFOUND, u"Element not found.", nullptr},
      {HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), u"The system cannot find the file specified.",
       u"File not found."},
      {HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), u"The system cannot find the path specified.",
       u"Path not found."},
      {HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY),
       u"Not enough memory resources are available to process this command.",
       u"Not enough memory."},
      {HRESULT_FROM_WIN32(ERROR_BROKEN_PIPE), u"The pipe has been ended.", u"Broken pipe."},
      {HRESULT_FROM_WIN32(ERROR_PIPE_NOT_CONNECTED), u"No process is on the other end of the pipe.",
       u"Pipe not connected."},
      {HRESULT_FROM_WIN32(ERROR_PIPE_BUSY), u"All pipe instances are busy.", u"Pipe busy."},
      {HRESULT_FROM_WIN32(ERROR_SEM_TIMEOUT), u"The semaphore timeout period has expired.",
       u"Semaphore timeout."},
      {HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER),
       u"The data area passed to a system call is too small.", u"Insufficient buffer."},
      {HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS),
       u"Cannot create a file when that file already exists.", u"File already exists."},
      // A bare Win32 error number reads like its HRESULT.
      {ERROR_FILE_NOT_FOUND, u"The system cannot find the file specified.", u"File not found."},
      // Codes the system does not know have no text: interfaces define their own, and the
      // customer bit marks a code as nobody else's.
      {MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0x0201), nullptr, nullptr},
      {MAKE_HRESULT(SEVERITY_ERROR, FACILITY_ITF, 0xDEAD), nullptr, nullptr},
      {static_cast<HRESULT>(0xA0001234), nullptr, nullptr},
  };
  const bool wine = test_support::RunningUnderWine();
  for (const MessageCase& c : kCases) {
    SCOPED_TRACE(::testing::Message() << std::hex << static_cast<std::uint32_t>(c.code));
    const std::optional<std::u16string> text = SystemMessageText(c.code);
    const char16_t* expected = wine ? c.wine : c.windows;
    if (expected == nullptr) {
      EXPECT_FALSE(text.has_value());
      continue;
    }
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(Utf16ToUtf8(*text), Utf16ToUtf8(expected));
  }
}

// Sets an environment variable of this process for the duration of a test.
class ScopedEnvironmentVariable {
 public:
  ScopedEnvironmentVariable(const char16_t* name, const std::u16string& value) : name_(name) {
#ifdef _WIN32
    SetEnvironmentVariableW(ToOleChars(name), ToOleChars(value.c_str()));
#else
    setenv(Utf16ToUtf8(name).c_str(), Utf16ToUtf8(value).c_str(), 1);
#endif
  }
  ~ScopedEnvironmentVariable() {
#ifdef _WIN32
    SetEnvironmentVariableW(ToOleChars(name_), nullptr);
#else
    unsetenv(Utf16ToUtf8(name_).c_str());
#endif
  }
  ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
  ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

 private:
  const char16_t* name_;
};

TEST(ExpandEnvironment, ReplacesKnownNamesAndKeepsTheRest) {
  const std::u16string kLong(300, u'L');
  ScopedEnvironmentVariable value(u"VEKX_TEST_VALUE", u"run");
  ScopedEnvironmentVariable unicode(u"VEKX_TEST_UNICODE", u"\u00e9\u20ac\U0001F600");
  ScopedEnvironmentVariable long_value(u"VEKX_TEST_LONG", kLong);
  const struct {
    const char16_t* text;
    std::u16string expected;
    // Wine 8 keeps an unknown "%NAME%" whole and resumes after it; Windows resumes at its
    // closing '%'. Under Wine this result is expected instead, where given.
    const char16_t* wine = nullptr;
  } kCases[] = {
      {u"", u""},
      {u"no references", u"no references"},
      {u"%VEKX_TEST_VALUE%", u"run"},
      {u"a%VEKX_TEST_VALUE%b%VEKX_TEST_VALUE%c", u"arunbrunc"},
      {u"%VEKX_TEST_UNICODE%", u"\u00e9\u20ac\U0001F600"},
      {u"%VEKX_TEST_UNKNOWN%", u"%VEKX_TEST_UNKNOWN%"},
      {u"100%", u"100%"},
      {u"%%", u"%%"},
      {u"50% of %VEKX_TEST_VALUE%", u"50% of run", u"50% of %VEKX_TEST_VALUE%"},
      // An unknown name's closing '%' may open the next reference.
      {u"%VEKX_TEST_UNKNOWN%VEKX_TEST_VALUE%", u"%VEKX_TEST_UNKNOWNrun",
       u"%VEKX_TEST_UNKNOWN%VEKX_TEST_VALUE%"},
      // Longer than the first buffer the Windows implementation tries.
      {u"<%VEKX_TEST_LONG%>", u"<" + kLong + u">"},
#ifdef _WIN32
      {u"%vekx_test_value%", u"run"},  // Names ignore case on Windows only.
#else
      {u"%vekx_test_value%", u"%vekx_test_value%"},
#endif
  };
  const bool wine = test_support::RunningUnderWine();
  for (const auto& c : kCases) {
    SCOPED_TRACE(Utf16ToUtf8(c.text));
    const std::optional<std::u16string> expanded = ExpandEnvironment(c.text);
    ASSERT_TRUE(expanded.has_value());
    const std::u16string expected = wine && c.wine != nullptr ? c.wine : c.expected;
    EXPECT_EQ(Utf16ToUtf8(*expanded), Utf16ToUtf8(expected));
  }
}

}  // namespace
}  // namespace qv::platform
