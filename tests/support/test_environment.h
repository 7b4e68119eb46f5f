#pragma once
// What tests that start processes and servers share: names nobody else uses, temporary
// directories, environment variables set for one test, and bounded waits.

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qv::testing {

// A user name that no real server and no other test process uses: `prefix`, this process's id
// and a counter.
std::u16string UniqueUser(std::string_view prefix);

// A fresh directory, removed with its contents at the end of the test. When none can be made the
// test fails and the path is empty.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string runtime_dir() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

// Sets an environment variable for the duration of a test and restores its old value. On Windows
// it sets the Win32 environment, the one SearchPathW and CreateProcessW read.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const std::string& value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  void Set(const char* value);

  std::string name_;
  std::optional<std::string> old_;
};

// PATH with `directory` searched first (';' separates Windows's PATH entries, ':' POSIX's).
std::string PathStartingWith(const std::string& directory);

// Polls `done` until it holds or `limit` passes, so that a broken wake-up fails a test instead of
// hanging it.
bool WaitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace qv::testing
