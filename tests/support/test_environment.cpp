#include "support/test_environment.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "platform/process_identity.h"
#include "platform/wide_string.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace qv::testing {

namespace fs = std::filesystem;

std::u16string UniqueUser(std::string_view prefix) {
  static std::atomic<int> counter{0};
  return platform::Utf8ToUtf16(std::string(prefix) + std::to_string(platform::CurrentProcessId()) +
                               "-" + std::to_string(++counter));
}

TempDir::TempDir() {
  std::error_code error;
  const fs::path base = fs::temp_directory_path(error);
  for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
    const fs::path candidate = base / platform::Utf16ToUtf8(UniqueUser("vkx-dir-"));
    if (fs::create_directory(candidate, error)) path_ = candidate;
  }
  if (path_.empty()) ADD_FAILURE() << "no temporary directory under " << base;
}

TempDir::~TempDir() {
  std::error_code error;
  if (!path_.empty()) fs::remove_all(path_, error);
}

ScopedVariable::ScopedVariable(const char* name, const std::string& value) : name_(name) {
  if (const char* old = std::getenv(name)) old_ = old;
  Set(value.c_str());
}

ScopedVariable::~ScopedVariable() {
  Set(old_ ? old_->c_str() : nullptr);
}

void ScopedVariable::Set(const char* value) {
#ifdef _WIN32
  const std::u16string name = platform::Utf8ToUtf16(name_);
  const std::u16string wide = value ? platform::Utf8ToUtf16(value) : u"";
  SetEnvironmentVariableW(reinterpret_cast<const wchar_t*>(name.c_str()),
                          value ? reinterpret_cast<const wchar_t*>(wide.c_str()) : nullptr);
  // The C runtime keeps a copy of its own that getenv reads.
  _putenv((name_ + "=" + (value ? value : "")).c_str());
#else
  if (value)
    setenv(name_.c_str(), value, 1);
  else
    unsetenv(name_.c_str());
#endif
}

std::string PathStartingWith(const std::string& directory) {
#ifdef _WIN32
  const char separator = ';';
#else
  const char separator = ':';
#endif
  const char* path = std::getenv("PATH");
  return directory + separator + (path != nullptr ? path : "");
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace qv::testing
