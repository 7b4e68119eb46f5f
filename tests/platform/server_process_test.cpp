// Finding, starting and recognising the server: readiness, the single-instance lock, the search
// for the executable and the start of a detached process.
#include "platform/server_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "platform/automation.h"
#include "platform/wide_string.h"
#include "support/test_environment.h"

#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#endif

namespace fs = std::filesystem;

namespace qv::platform {
namespace {

#ifdef _WIN32
constexpr wchar_t kStartReportVariable[] = L"VEKX_TEST_START_REPORT";

// The start test runs a copy of this program as the "server", with this variable naming a report
// file. That copy writes its working directory there and exits before any test runs.
[[maybe_unused]] const bool kIsStartedCopy = [] {
  wchar_t report[MAX_PATH];
  const DWORD length = GetEnvironmentVariableW(kStartReportVariable, report, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return false;
  wchar_t directory[MAX_PATH];
  const DWORD directory_length = GetCurrentDirectoryW(MAX_PATH, directory);
  const std::wstring partial = std::wstring(report) + L".part";
  const HANDLE file = CreateFileW(partial.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file != INVALID_HANDLE_VALUE) {
    DWORD written = 0;
    WriteFile(file, directory, directory_length * sizeof(wchar_t), &written, nullptr);
    CloseHandle(file);
    MoveFileW(partial.c_str(), report);  // Whole or not at all for the waiting test.
  }
  ExitProcess(0);
}();
#endif

using testing::ScopedVariable;
using testing::TempDir;

// A user name no real server and no other test process uses.
std::u16string UniqueUser() {
  return testing::UniqueUser("srvp-test-");
}

void WriteFile(const fs::path& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// Waits for a file another process writes, at most 30 s so that a process that never runs
// fails the test instead of hanging it.
bool WaitForFile(const fs::path& path) {
  std::error_code error;
  return testing::WaitUntil([&] { return fs::exists(path, error); }, std::chrono::seconds(30));
}

// --- Readiness -------------------------------------------------------------------------------

#ifndef _WIN32
// A marker is a file locked while the server serves; the probe opens the file anew, so it sees
// the lock of this very process.
TEST(ServerReadiness, FollowsTheMarkersLockAndIgnoresLeftoversAndUnusableNames) {
  TempDir dir;
  const std::string missing = (dir.path() / "missing").string();
  const std::u16string user = UniqueUser();
  const fs::path file = dir.path() / ("qv_ve_run_svr" + Utf16ToUtf8(user));

  EXPECT_FALSE(ServerIsReady(user, dir.runtime_dir(), 0));
  // A user name must not lead out of the runtime directory.
  fs::create_directory(dir.path() / "qv_ve_run_svrx");
  const struct {
    std::u16string user;
    std::string runtime_dir;
  } kUnusable[] = {{user, missing}, {user, ""}, {u"x/escape", dir.runtime_dir()}};
  for (const auto& c : kUnusable) {
    SCOPED_TRACE(c.runtime_dir);
    EXPECT_EQ(ReadinessMarker::Create(c.user, c.runtime_dir), nullptr);
    EXPECT_FALSE(ServerIsReady(c.user, c.runtime_dir, 0));
  }
  EXPECT_FALSE(fs::exists(dir.path() / "qv_ve_run_svrx" / "escape"));

  // A new file is private to the user.
  const mode_t old_mask = umask(0);
  std::unique_ptr<ReadinessMarker> marker = ReadinessMarker::Create(user, dir.runtime_dir());
  umask(old_mask);
  ASSERT_NE(marker, nullptr);
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(ReadinessMarker::Create(user, dir.runtime_dir()), nullptr) << "one marker at a time";
  EXPECT_TRUE(ServerIsReady(user, dir.runtime_dir(), 0));
  EXPECT_TRUE(ServerIsReady(user, dir.runtime_dir(), 0)) << "the probe must not take the lock";
  EXPECT_FALSE(ServerIsReady(UniqueUser(), dir.runtime_dir(), 0)) << "another user's server";

  // What a crashed server leaves behind means no server; a new start takes the file over.
  marker.reset();
  WriteFile(file, "left over");
  ASSERT_TRUE(fs::exists(file));
  EXPECT_FALSE(ServerIsReady(user, dir.runtime_dir(), 0));
  marker = ReadinessMarker::Create(user, dir.runtime_dir());
  ASSERT_NE(marker, nullptr);
  EXPECT_TRUE(ServerIsReady(user, dir.runtime_dir(), 0));
}
#else
TEST(ServerReadiness, EventThatIsNotSignalledMeansNoServerUntilAWaitSeesItSet) {
  const std::u16string user = UniqueUser();
  const std::wstring name = L"Global\\qv_ve_run_svr" + std::wstring(user.begin(), user.end());
  // An event that exists but was never set, as a client holding a dead server's event sees.
  const HANDLE leftover = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
  ASSERT_NE(leftover, nullptr);
  EXPECT_FALSE(ServerIsReady(user, "", 0));
  {
    std::unique_ptr<ReadinessMarker> marker = ReadinessMarker::Create(user, "");
    ASSERT_NE(marker, nullptr);
    EXPECT_TRUE(ServerIsReady(user, "", 0));
    EXPECT_TRUE(ServerIsReady(user, "", 0)) << "the probe must not reset the event";
    EXPECT_FALSE(ServerIsReady(UniqueUser(), "", 0)) << "another user's server";
  }
  // The event lives on through our handle; the marker must have reset it on its way out.
  EXPECT_FALSE(ServerIsReady(user, "", 0));
  EXPECT_NE(WaitForSingleObject(leftover, 0), WAIT_OBJECT_0);

  // A wait ends when the server becomes ready.
  std::unique_ptr<ReadinessMarker> marker;
  std::thread server([&] { marker = ReadinessMarker::Create(user, ""); });
  // Bounded: a marker that never signals fails after 30 s instead of hanging.
  EXPECT_TRUE(ServerIsReady(user, "", 30000));
  server.join();
  EXPECT_NE(marker, nullptr);
  CloseHandle(leftover);
}
#endif

// --- The instance lock -----------------------------------------------------------------------

TEST(InstanceLock, OneHolderAtATime) {
  TempDir dir;
  TempDir other_dir;
  const std::u16string user = UniqueUser();

  std::unique_ptr<InstanceLock> first = InstanceLock::TryAcquire(user, dir.runtime_dir());
  ASSERT_NE(first, nullptr);
  InstanceLockFailure failure = InstanceLockFailure::kSystemError;
  EXPECT_EQ(InstanceLock::TryAcquire(user, dir.runtime_dir(), &failure), nullptr);
  EXPECT_EQ(failure, InstanceLockFailure::kHeldElsewhere);

  // Another user (Windows) or runtime directory (POSIX) is another server's business.
  std::unique_ptr<InstanceLock> unrelated =
      InstanceLock::TryAcquire(UniqueUser(), other_dir.runtime_dir());
  EXPECT_NE(unrelated, nullptr);

  first.reset();
  std::unique_ptr<InstanceLock> second = InstanceLock::TryAcquire(user, dir.runtime_dir());
  EXPECT_NE(second, nullptr);
}

#ifndef _WIN32
// The holder's id is the lock file's text while it holds the lock; only a held lock naming a
// running vesta-kx counts, so neither a crashed server's leftover nor a reused id is signalled.
// Without the runtime directory there is no lock: a system error.
TEST(InstanceLock, RecordsItsHolderForTheStopRequestAndNeedsItsDirectory) {
  TempDir dir;
  InstanceLockFailure failure = InstanceLockFailure::kHeldElsewhere;
  EXPECT_EQ(InstanceLock::TryAcquire(u"user", (dir.path() / "missing").string(), &failure),
            nullptr);
  EXPECT_EQ(failure, InstanceLockFailure::kSystemError);

  const fs::path file = fs::path(dir.runtime_dir()) / "vesta-kx.lock";
  WriteFile(file, std::to_string(getpid()) + "\n");  // As a crashed server would leave it.
  EXPECT_EQ(RunningServerProcessId(u"user", dir.runtime_dir()), std::nullopt);

  std::unique_ptr<InstanceLock> lock = InstanceLock::TryAcquire(u"user", dir.runtime_dir());
  ASSERT_NE(lock, nullptr);
  EXPECT_EQ(ReadFile(file), std::to_string(getpid()) + "\n");
  // Held, but by a process that is not vesta-kx.
  EXPECT_EQ(RunningServerProcessId(u"user", dir.runtime_dir()), std::nullopt);
  lock.reset();
  EXPECT_EQ(ReadFile(file), "");
}
#endif

// --- Finding the executable ------------------------------------------------------------------

#ifndef _WIN32
constexpr char kServer[] = "vesta-kx";

void MakeServerFile(const fs::path& dir, mode_t mode) {
  fs::create_directories(dir);
  WriteFile(dir / kServer, "#!/bin/sh\n");
  chmod((dir / kServer).c_str(), mode);
}

// The server in the directory of this test program, which any search finds first.
std::optional<std::u16string> ServerBesideThisProgram() {
  std::error_code error;
  const fs::path candidate = fs::read_symlink("/proc/self/exe", error).parent_path() / kServer;
  if (error || access(candidate.c_str(), X_OK) != 0) return std::nullopt;
  return Utf8ToUtf16(candidate.string());
}

// Never the current directory, which the empty, "." and relative entries name.
TEST(FindServerExecutable, SearchesTheHostDirectoryThenPathInOrderButNeverTheCurrentDirectory) {
  TempDir dir;
  const fs::path root = dir.path();
  MakeServerFile(root / "cwd", 0755);
  std::error_code error;
  const fs::path old_cwd = fs::current_path(error);
  fs::current_path(root / "cwd", error);
  ASSERT_FALSE(error);
  MakeServerFile(root / "host", 0755);
  MakeServerFile(root / "first", 0644);                  // Not executable: skipped.
  fs::create_directories(root / "dir_named" / kServer);  // A directory: skipped.
  MakeServerFile(root / "second \xC3\xA9", 0755);        // Not ASCII: it comes back intact.
  MakeServerFile(root / "third", 0755);
  const std::string path_list = (root / "first").string() + ":" + (root / "dir_named").string() +
                                ":" + (root / "missing").string() +
                                "::" + (root / "second \xC3\xA9").string() +
                                "/:" + (root / "third").string();

  const struct {
    std::string host_dir;
    std::string path_list;
    std::optional<fs::path> expected;
  } kCases[] = {
      {(root / "host").string(), path_list, root / "host" / kServer},
      {"", path_list, root / "second \xC3\xA9" / kServer},
      {(root / "first").string(), path_list, root / "second \xC3\xA9" / kServer},
      {(root / "host").string(), "", root / "host" / kServer},
      {"", (root / "third").string(), root / "third" / kServer},
      {"", (root / "first").string() + ":" + (root / "missing").string(), std::nullopt},
      {"", "", std::nullopt},
      {"", ":.:./:../cwd", std::nullopt},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.host_dir + " | " + c.path_list);
    const std::optional<std::u16string> found = FindServerExecutableIn(c.host_dir, c.path_list);
    EXPECT_EQ(found.has_value(), c.expected.has_value());
    if (found && c.expected) {
      EXPECT_EQ(fs::path(Utf16ToUtf8(*found)), *c.expected);
    }
  }
  ScopedVariable path("PATH", ":.");
  EXPECT_EQ(FindServerExecutable(), ServerBesideThisProgram());
  fs::current_path(old_cwd, error);
}

#else
TEST(FindServerExecutable, FindsTheServerAlongPath) {
  TempDir dir;
  EXPECT_EQ(FindServerExecutable(), std::nullopt) << "no server anywhere yet";
  WriteFile(dir.path() / "vesta-kx.exe", "");
  ScopedVariable path("PATH", testing::PathStartingWith(dir.path().string()));
  const std::optional<std::u16string> found = FindServerExecutable();
  ASSERT_TRUE(found.has_value());
  EXPECT_TRUE(fs::equivalent(fs::path(std::wstring(found->begin(), found->end())),
                             dir.path() / "vesta-kx.exe"));
}

TEST(FindServerExecutable, PathOf260CharactersOrMoreIsNotFound) {
  TempDir dir;
  // Made through the long-path prefix, which the MAX_PATH limit does not apply to.
  std::wstring long_dir = dir.path().wstring();
  while (long_dir.size() < MAX_PATH) {
    long_dir += L"\\" + std::wstring(60, L'd');
    ASSERT_TRUE(CreateDirectoryW((L"\\\\?\\" + long_dir).c_str(), nullptr));
  }
  const std::wstring file = L"\\\\?\\" + long_dir + L"\\vesta-kx.exe";
  const HANDLE handle = CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(handle, INVALID_HANDLE_VALUE);
  CloseHandle(handle);
  const std::u16string wide_dir(long_dir.begin(), long_dir.end());
  ScopedVariable path("PATH", testing::PathStartingWith(Utf16ToUtf8(wide_dir)));

  // The system finds it given room enough; the 260-character buffer has none.
  std::wstring roomy(2 * MAX_PATH, L'\0');
  const DWORD length = SearchPathW(nullptr, L"vesta-kx.exe", nullptr,
                                   static_cast<DWORD>(roomy.size()), roomy.data(), nullptr);
  ASSERT_GE(length, static_cast<DWORD>(MAX_PATH));
  ASSERT_LT(length, static_cast<DWORD>(roomy.size()));
  EXPECT_EQ(FindServerExecutable(), std::nullopt);

  DeleteFileW(file.c_str());
  for (; long_dir.size() > dir.path().wstring().size(); long_dir.resize(long_dir.rfind(L'\\')))
    RemoveDirectoryW((L"\\\\?\\" + long_dir).c_str());
}
#endif

// --- Starting the server ---------------------------------------------------------------------

#ifndef _WIN32
// Whether this process has any child left, dead or alive.
bool HasChildren() {
  errno = 0;
  return !(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD);
}

TEST(StartServerProcess, RunsDetachedInItsDirectoryWithOnlyStandardDescriptors) {
  TempDir dir;
  const fs::path server_dir = dir.path() / "server \xC3\xA9";
  fs::create_directories(server_dir);
  const fs::path script = server_dir / kServer;
  const fs::path report = dir.path() / "pid";
  // The "server" reports its pid and stays while the report is there, 30 s at most: the test
  // looks at it meanwhile and removes the report with its directory.
  std::string text = R"(#!/bin/sh
echo $$ > REPORT.part && mv REPORT.part REPORT
i=0
while [ -e REPORT ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i + 1)); done
)";
  for (std::size_t at; (at = text.find("REPORT")) != std::string::npos;)
    text.replace(at, 6, "'" + report.string() + "'");
  WriteFile(script, text);
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  // A descriptor without close-on-exec, which the server must not inherit.
  WriteFile(dir.path() / "leak", "");
  const int leak = open((dir.path() / "leak").c_str(), O_RDONLY);
  ASSERT_GE(leak, 0);

  ASSERT_FALSE(HasChildren());
  const bool started = StartServerProcess(Utf8ToUtf16(script.string()));
  close(leak);
  ASSERT_TRUE(started);
  EXPECT_FALSE(HasChildren()) << "the intermediate child is reaped, the server is not ours";
  ASSERT_TRUE(WaitForFile(report));

  const fs::path proc = "/proc/" + std::to_string(std::atol(ReadFile(report).c_str()));
  std::error_code error;
  EXPECT_EQ(fs::read_symlink(proc / "cwd", error), fs::canonical(server_dir));
  // Field 4 of stat is the parent; the command name before it holds no spaces here.
  std::istringstream stat_line(ReadFile(proc / "stat"));
  std::string pid_field, command, state, parent;
  stat_line >> pid_field >> command >> state >> parent;
  EXPECT_FALSE(parent.empty());
  EXPECT_NE(parent, std::to_string(getpid()));

  int standard = 0;
  for (const fs::directory_entry& entry : fs::directory_iterator(proc / "fd", error)) {
    const std::string fd = entry.path().filename().string();
    const fs::path target = fs::read_symlink(entry.path(), error);
    if (fd == "0" || fd == "1" || fd == "2") {
      EXPECT_EQ(target, "/dev/null") << "fd " << fd;
      ++standard;
    } else if (target != script) {  // The shell reads its script through a descriptor of its own.
      ADD_FAILURE() << "inherited fd " << fd << " -> " << target;
    }
  }
  EXPECT_FALSE(error) << error.message();
  EXPECT_EQ(standard, 3);
}

TEST(StartServerProcess, FailsWhenThePathCannotBeExecuted) {
  TempDir dir;
  MakeServerFile(dir.path(), 0644);
  const struct {
    const char* what;
    fs::path path;
  } kCases[] = {
      {"missing", dir.path() / "missing" / kServer},
      {"not executable", dir.path() / kServer},
      {"a directory", dir.path()},
      {"relative", kServer},
      {"empty", ""},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    EXPECT_FALSE(StartServerProcess(Utf8ToUtf16(c.path.string())));
    EXPECT_FALSE(HasChildren());
  }
}
#else
TEST(StartServerProcess, RunsTheExecutableInItsDirectory) {
  TempDir dir;
  wchar_t self[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, self, MAX_PATH);
  ASSERT_TRUE(length > 0 && length < MAX_PATH);
  const fs::path server_dir = dir.path() / "server";
  fs::create_directories(server_dir);
  const fs::path copy = server_dir / "vesta-kx.exe";
  ASSERT_TRUE(CopyFileW(self, copy.c_str(), FALSE));
  const fs::path report = dir.path() / "report";

  bool started = false;
  {
    ScopedVariable variable("VEKX_TEST_START_REPORT", report.string());
    const std::wstring wide = copy.wstring();
    started = StartServerProcess(std::u16string(wide.begin(), wide.end()));
  }
  ASSERT_TRUE(started);
  ASSERT_TRUE(WaitForFile(report));
  const std::string bytes = ReadFile(report);
  const std::wstring reported(reinterpret_cast<const wchar_t*>(bytes.data()),
                              bytes.size() / sizeof(wchar_t));
  EXPECT_TRUE(fs::equivalent(fs::path(reported), server_dir));
  EXPECT_NE(fs::path(reported), fs::current_path());

  // The copy may take a moment to exit and let go of its file.
  for (int i = 0; i < 100 && !DeleteFileW(copy.c_str()); ++i)
    Sleep(50);
}

TEST(StartServerProcess, FailsWhenThePathCannotBeExecuted) {
  TempDir dir;
  const std::wstring missing = (dir.path() / "vesta-kx.exe").wstring();
  EXPECT_FALSE(StartServerProcess(std::u16string(missing.begin(), missing.end())));
  EXPECT_FALSE(StartServerProcess(u"vesta-kx.exe"));
  EXPECT_FALSE(StartServerProcess(u""));
}
#endif

}  // namespace
}  // namespace qv::platform
