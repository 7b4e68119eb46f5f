// The pipe transport: a client and a listener thread in one process, over named pipes on
// Windows (under Wine) and Unix-domain sockets on POSIX.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/pipe.h"
#include "platform/wide_string.h"
#include "support/test_environment.h"
#include "test_support.h"

#ifdef _WIN32
#include <windows.h>
// windows.h must come first.
#include <sddl.h>
#else
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#endif

namespace qv::platform {
namespace {

using Bytes = std::vector<uint8_t>;

// Long enough for any healthy operation on a loaded machine; reached only when one hangs.
constexpr auto kHangLimit = std::chrono::seconds(30);
constexpr uint32_t kConnectTimeoutMs = 30000;

// A pipe name no other test, and no other run of this program, uses at the same time.
std::u16string UniqueName() {
  return testing::UniqueUser("qv_pipe_test_");
}

Bytes Pattern(size_t size, uint32_t seed) {
  Bytes bytes(size);
  uint32_t state = seed;
  for (auto& b : bytes) {
    state = state * 1664525u + 1013904223u;
    b = static_cast<uint8_t>(state >> 24);
  }
  return bytes;
}

// Waits for `result` without hanging the run: when it does not come within the limit the test
// fails, `unblock` is asked to end the operation, and if even that does not help the program
// exits.
template <typename T>
T Await(std::future<T>& result, const std::function<void()>& unblock) {
  if (result.wait_for(kHangLimit) != std::future_status::ready) {
    ADD_FAILURE() << "the operation did not end";
    unblock();
    if (result.wait_for(kHangLimit) != std::future_status::ready) {
      std::fputs("pipe_test: an operation hangs even after unblocking\n", stderr);
      std::_Exit(1);
    }
  }
  return result.get();
}

// Gives an operation started on another thread a moment to block before the test acts on it.
// Correctness never depends on it: an operation that starts late sees the same state.
void LetItBlock() {
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// Ends the program when a test outlives a generous limit, so that an operation that never
// returns, on any thread, fails the run instead of hanging it.
class Watchdog {
 public:
  ~Watchdog() {
    done_.set_value();
    thread_.join();
  }

 private:
  std::promise<void> done_;
  std::thread thread_{[done = done_.get_future()] {
    if (done.wait_for(4 * kHangLimit) == std::future_status::ready) return;
    std::fputs("pipe_test: the test hangs\n", stderr);
    std::_Exit(1);
  }};
};

// Writes `bytes` as one part.
IoResult Send(Pipe& pipe, const Bytes& bytes, StopSignal& stop) {
  const std::array<std::span<const uint8_t>, 1> parts = {bytes};
  return pipe.Write(parts, stop);
}

// Connects a client to `listener`, serving `name`, and accepts its server end.
void ConnectTo(PipeListener& listener, const std::u16string& name, std::unique_ptr<Pipe>& client,
               std::unique_ptr<Pipe>& server) {
  StopSignal stop;
  std::future<IoResult> accepted =
      std::async(std::launch::async, [&] { return listener.Accept(server, stop); });
  uint32_t error = 0;
  EXPECT_EQ(Pipe::Connect(name, kConnectTimeoutMs, client, error), IoResult::kOk) << error;
  EXPECT_EQ(Await(accepted, [&] { stop.Set(); }), IoResult::kOk);
  ASSERT_TRUE(client && server);
}

class PipeTest : public ::testing::Test {
 protected:
  // A listener for a fresh name.
  void Listen() {
    name_ = UniqueName();
    uint32_t error = 0;
    ASSERT_EQ(PipeListener::Create(name_, listener_, error), IoResult::kOk) << error;
  }
  // A listener for a fresh name, with a client connected to it and the server end accepted.
  void Connect() {
    ASSERT_NO_FATAL_FAILURE(Listen());
    ConnectTo(*listener_, name_, client_, server_);
  }

  Watchdog watchdog_;
#ifndef _WIN32
  // On POSIX every test gets its own XDG_RUNTIME_DIR, so sockets and the runtime directory stay
  // inside a temporary directory that is removed afterwards.
  testing::TempDir temp_;
  std::string temp_dir_ = temp_.path().string();
  testing::ScopedVariable runtime_dir_{"XDG_RUNTIME_DIR", temp_dir_};
#endif
  std::u16string name_;
  StopSignal stop_;
  std::unique_ptr<PipeListener> listener_;
  std::unique_ptr<Pipe> client_;
  std::unique_ptr<Pipe> server_;
};

TEST_F(PipeTest, GatheredPartsArriveInOrderAndWhole) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  const Bytes header = Pattern(16, 1);
  const Bytes body = Pattern(1000, 2);
  const Bytes tail = {0x7f};
  const std::array<std::span<const uint8_t>, 4> parts = {header, std::span<const uint8_t>(), body,
                                                         tail};
  ASSERT_EQ(client_->Write(parts, stop_), IoResult::kOk);

  Bytes expected = header;
  expected.insert(expected.end(), body.begin(), body.end());
  expected.insert(expected.end(), tail.begin(), tail.end());
  Bytes received(expected.size());
  ASSERT_EQ(server_->ReadExact(received.data(), received.size(), stop_), IoResult::kOk);
  EXPECT_EQ(received, expected);

  // Back the other way, read through a small window: ReadSome never exceeds it.
  const std::array<std::span<const uint8_t>, 2> reply = {body, header};
  ASSERT_EQ(server_->Write(reply, stop_), IoResult::kOk);
  Bytes echoed;
  while (echoed.size() < body.size() + header.size()) {
    uint8_t window[7];
    size_t got = 0;
    ASSERT_EQ(client_->ReadSome(window, sizeof(window), got, stop_), IoResult::kOk);
    ASSERT_GE(got, 1u);
    ASSERT_LE(got, sizeof(window));
    echoed.insert(echoed.end(), window, window + got);
  }
  Bytes expected_reply = body;
  expected_reply.insert(expected_reply.end(), header.begin(), header.end());
  EXPECT_EQ(echoed, expected_reply);

  // Large parts marked lendable go out between copied ones, whole and in order, however slowly
  // the peer reads; until it has read them, the writer's end counts them as unread.
  const Bytes lent_large = Pattern(8 << 20, 3);
  const Bytes lent_least = Pattern(Pipe::kLendFrom, 4);
  const std::array<std::span<const uint8_t>, 5> mixed = {header, lent_large, body, lent_least,
                                                         tail};
  const std::array<uint8_t, 5> lendable = {0, 1, 1, 1, 0};  // body is too small to lend
  std::future<IoResult> written =
      std::async(std::launch::async, [&] { return client_->Write(mixed, lendable, stop_); });
  LetItBlock();
#ifdef __linux__
  EXPECT_GT(client_->UnreadByPeer(), 0u);
#endif
  Bytes expected_mixed;
  for (std::span<const uint8_t> part : mixed)
    expected_mixed.insert(expected_mixed.end(), part.begin(), part.end());
  Bytes arrived(expected_mixed.size());
  for (size_t at = 0, got = 0; at < arrived.size(); at += got)
    ASSERT_EQ(server_->ReadSome(arrived.data() + at, std::min<size_t>(arrived.size() - at, 65536),
                                got, stop_),
              IoResult::kOk);
  EXPECT_EQ(Await(written, [&] { server_->Close(); }), IoResult::kOk);
  EXPECT_TRUE(arrived == expected_mixed);
  EXPECT_EQ(client_->UnreadByPeer(), 0u);

  // Nothing to write is no write at all, and asking for nothing reads nothing.
  EXPECT_EQ(client_->Write({}, stop_), IoResult::kOk);
  size_t got = 99;
  EXPECT_EQ(client_->ReadSome(nullptr, 0, got, stop_), IoResult::kOk);
  EXPECT_EQ(got, 0u);
}

// A stop signal ends each blocked operation (and, while it stays set, ends a new one at once);
// what the operation blocked serves on once the signal is reset.
TEST_F(PipeTest, StopEndsBlockedOperationsAndWhatTheyBlockedServesOn) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  uint8_t buffer[4];
  const Bytes message = {1, 2, 3, 4};
  const Bytes flood(64 << 20, 0x5a);
  std::unique_ptr<Pipe> accepted;
  std::unique_ptr<Pipe> unblocker;
  uint32_t error = 0;
  std::unique_ptr<Pipe> waits_inside;  // a second pair, whose client reads wait inside recv
  std::unique_ptr<Pipe> waits_inside_peer;
  ASSERT_NO_FATAL_FAILURE(ConnectTo(*listener_, name_, waits_inside, waits_inside_peer));
  waits_inside->WaitInsideReads();
  std::unique_ptr<Pipe> lender;  // a third, for a write that lends its pages
  std::unique_ptr<Pipe> lender_peer;
  ASSERT_NO_FATAL_FAILURE(ConnectTo(*listener_, name_, lender, lender_peer));
  const std::span<const uint8_t> flood_part = flood;
  const uint8_t lend = 1;
  const struct {
    const char* name;
    std::function<IoResult()> operation;
    std::function<void()> unblock;  // Ends the operation when the signal does not.
    std::function<void()> then;     // Runs with the signal reset.
  } kCases[] = {
      {"read", [&] { return client_->ReadExact(buffer, sizeof(buffer), stop_); },
       [&] { server_->Close(); },
       [&] {  // The cancelled read took nothing from the stream.
         ASSERT_EQ(Send(*server_, message, stop_), IoResult::kOk);
         ASSERT_EQ(client_->ReadExact(buffer, sizeof(buffer), stop_), IoResult::kOk);
         EXPECT_EQ(Bytes(buffer, buffer + 4), message);
       }},
      {"accept", [&] { return listener_->Accept(accepted, stop_); },
       [&] { Pipe::Connect(name_, 1000, unblocker, error); },
       [&] {
         EXPECT_EQ(accepted, nullptr);
         ASSERT_NO_FATAL_FAILURE(ConnectTo(*listener_, name_, client_, server_));
         ASSERT_EQ(Send(*client_, {42}, stop_), IoResult::kOk);
         EXPECT_EQ(server_->ReadExact(buffer, 1, stop_), IoResult::kOk);
         EXPECT_EQ(buffer[0], 42);
       }},
      // A write that cannot finish because nobody reads.
      {"write", [&] { return Send(*client_, flood, stop_); }, [&] { server_->Close(); }, [] {}},
      {"lent write",
       [&] {
         return lender->Write({&flood_part, 1}, {&lend, 1}, stop_);
       },
       [&] { lender_peer->Close(); }, [] {}},
      {"read waiting inside recv",
       [&] { return waits_inside->ReadExact(buffer, sizeof(buffer), stop_); },
       [&] { waits_inside_peer->Close(); },
       [&] {
#ifndef _WIN32  // The stop shut the reading down: the pipe is done with.
         EXPECT_EQ(waits_inside->ReadExact(buffer, 1, stop_), IoResult::kBrokenPipe);
#endif
       }},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    std::future<IoResult> result = std::async(std::launch::async, c.operation);
    LetItBlock();
    stop_.Set();
    EXPECT_TRUE(stop_.IsSet());
    EXPECT_EQ(Await(result, c.unblock), IoResult::kStopped);
    EXPECT_EQ(c.operation(), IoResult::kStopped) << "while it stays set, nothing waits";
    stop_.Reset();
    EXPECT_FALSE(stop_.IsSet());
    c.then();
  }
}

TEST_F(PipeTest, OneListenerPerNameAtATime) {
  ASSERT_NO_FATAL_FAILURE(Listen());
  uint32_t error = 0;
  std::unique_ptr<PipeListener> second;
  const IoResult again = PipeListener::Create(name_, second, error);
  if (test_support::RunningUnderWine()) {
    // Known difference: Wine 8 ignores FILE_FLAG_FIRST_PIPE_INSTANCE and adds an instance.
    // One server per user rests on the server's instance lock there.
    second.reset();
  } else {
    EXPECT_EQ(again, IoResult::kFailed);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(error, 0u);
  }

  // The refused one took nothing from the first: its clients still get through.
  ConnectTo(*listener_, name_, client_, server_);

  // Once the first has gone, the name is free again.
  listener_.reset();
  EXPECT_EQ(PipeListener::Create(name_, second, error), IoResult::kOk) << error;
}

TEST_F(PipeTest, ConnectWaitsForALateServerAndTimesOutWhenNobodyServes) {
  uint32_t error = 0;
  EXPECT_EQ(Pipe::Connect(UniqueName(), 200, client_, error), IoResult::kTimedOut);
  EXPECT_NE(error, 0u);
  EXPECT_EQ(client_, nullptr);

  // A server that appears while the client waits is found.
  name_ = UniqueName();
  std::future<IoResult> served = std::async(std::launch::async, [&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    uint32_t create_error = 0;
    const IoResult created = PipeListener::Create(name_, listener_, create_error);
    return created == IoResult::kOk ? listener_->Accept(server_, stop_) : created;
  });
  EXPECT_EQ(Pipe::Connect(name_, kConnectTimeoutMs, client_, error), IoResult::kOk) << error;
  EXPECT_EQ(Await(served, [&] { stop_.Set(); }), IoResult::kOk);
  EXPECT_NE(client_, nullptr);
}

TEST_F(PipeTest, ClientsRacingForInstancesAllGetThrough) {
  ASSERT_NO_FATAL_FAILURE(Listen());
  constexpr int kClients = 4;
  std::future<std::vector<int>> server_side = std::async(std::launch::async, [&] {
    std::vector<int> seen;
    for (int i = 0; i < kClients; ++i) {
      std::unique_ptr<Pipe> server;
      if (listener_->Accept(server, stop_) != IoResult::kOk) break;
      uint8_t id = 0;
      if (server->ReadExact(&id, 1, stop_) != IoResult::kOk) break;
      seen.push_back(id);
    }
    return seen;
  });
  std::vector<std::future<IoResult>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::async(std::launch::async, [&, i] {
      std::unique_ptr<Pipe> client;
      uint32_t client_error = 0;
      IoResult result = Pipe::Connect(name_, kConnectTimeoutMs, client, client_error);
      if (result != IoResult::kOk) return result;
      result = Send(*client, {static_cast<uint8_t>(i)}, stop_);
      // Stay connected until the server has read the id.
      uint8_t ignored;
      if (result == IoResult::kOk) client->ReadExact(&ignored, 1, stop_);
      return result;
    }));
  }
  std::vector<int> seen = Await(server_side, [&] { stop_.Set(); });
  stop_.Set();  // Releases the clients waiting on their reads.
  for (auto& client : clients)
    EXPECT_EQ(Await(client, [] {}), IoResult::kOk);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3}));
}

// A peer that goes is a broken pipe, for a read waiting then and for a write after. What it sent
// before it went is read first; a frame it cut short is a broken pipe, not a short success.
TEST_F(PipeTest, PeerCloseIsABrokenPipeAfterWhatItSent) {
  // The server goes while the client waits for a read.
  ASSERT_NO_FATAL_FAILURE(Connect());
  uint8_t buffer[16];
  std::future<IoResult> read =
      std::async(std::launch::async, [&] { return client_->ReadExact(buffer, 8, stop_); });
  LetItBlock();
  server_->Close();
  EXPECT_EQ(Await(read, [&] { stop_.Set(); }), IoResult::kBrokenPipe);
  EXPECT_NE(client_->LastSystemError(), 0u);
  // Writing to the server that went is a broken pipe too, and raises no SIGPIPE.
  EXPECT_EQ(Send(*client_, Bytes(64 * 1024, 1), stop_), IoResult::kBrokenPipe);

  ASSERT_NO_FATAL_FAILURE(Connect());
  const Bytes last = {9, 8, 7};
  ASSERT_EQ(Send(*client_, last, stop_), IoResult::kOk);
  client_.reset();
  ASSERT_EQ(server_->ReadExact(buffer, 3, stop_), IoResult::kOk);
  EXPECT_EQ(Bytes(buffer, buffer + 3), last);
  size_t got = 0;
  EXPECT_EQ(server_->ReadSome(buffer, 3, got, stop_), IoResult::kBrokenPipe);
  EXPECT_EQ(got, 0u);

  ASSERT_NO_FATAL_FAILURE(Connect());
  ASSERT_EQ(Send(*server_, last, stop_), IoResult::kOk);
  server_.reset();
  EXPECT_EQ(client_->ReadExact(buffer, sizeof(buffer), stop_), IoResult::kBrokenPipe);
}

TEST_F(PipeTest, ClosedPipesAndEmptyNamesFail) {
  ASSERT_NO_FATAL_FAILURE(Connect());
  EXPECT_TRUE(client_->IsOpen());
  client_->Close();
  client_->Close();
  EXPECT_FALSE(client_->IsOpen());
  uint8_t byte = 0;
  EXPECT_EQ(client_->ReadExact(&byte, 1, stop_), IoResult::kFailed);
  EXPECT_NE(client_->LastSystemError(), 0u);
  EXPECT_EQ(Send(*client_, {1}, stop_), IoResult::kFailed);

  std::unique_ptr<PipeListener> listener;
  uint32_t error = 0;
  EXPECT_EQ(PipeListener::Create(u"", listener, error), IoResult::kFailed);
  EXPECT_EQ(listener, nullptr);
  EXPECT_NE(error, 0u);
}

#ifdef _WIN32
TEST_F(PipeTest, OnlyTheCurrentUserMayOpenTheListenersPipe) {
  const std::u16string name = UniqueName();
  uint32_t error = 0;
  std::unique_ptr<PipeListener> listener;
  ASSERT_EQ(PipeListener::Create(name, listener, error), IoResult::kOk) << error;
  const std::wstring full_name = L"\\\\.\\pipe\\" + std::wstring(name.begin(), name.end());
  HANDLE pipe = CreateFileW(full_name.c_str(), READ_CONTROL, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(pipe, INVALID_HANDLE_VALUE) << GetLastError();
  DWORD needed = 0;
  GetKernelObjectSecurity(pipe, DACL_SECURITY_INFORMATION, nullptr, 0, &needed);
  std::vector<unsigned char> descriptor(needed);
  ASSERT_TRUE(
      GetKernelObjectSecurity(pipe, DACL_SECURITY_INFORMATION, descriptor.data(), needed, &needed))
      << GetLastError();
  CloseHandle(pipe);
  wchar_t* text = nullptr;
  ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(
      descriptor.data(), SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
  const std::wstring sddl = text;
  LocalFree(text);
  // A protected DACL with one entry: full access for one account's SID. Without a descriptor
  // of its own the pipe gets a default one (Windows) or none at all (Wine).
  const std::wstring expected_start = L"D:P(A;;GA;;;S-1-5-";
  ASSERT_EQ(sddl.substr(0, expected_start.size()), expected_start);
  EXPECT_EQ(sddl.find(L"(", 1), sddl.rfind(L"("));
  EXPECT_EQ(sddl.back(), L')');
}
#endif

#ifndef _WIN32

// POSIX only: where the sockets live, and who may use them.
class RuntimeDirectoryTest : public PipeTest {
 protected:
  std::string Expected() const { return temp_dir_ + "/vesta"; }
};

TEST_F(RuntimeDirectoryTest, CreatedPrivateWhenMissingAcceptedWhenPrivateAndPerUserWithoutXdg) {
  const std::optional<std::string> dir = RuntimeDirectory();
  ASSERT_TRUE(dir.has_value());
  EXPECT_EQ(*dir, Expected());
  struct stat status;
  ASSERT_EQ(lstat(dir->c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(status.st_mode & 0777, 0700u);
  EXPECT_EQ(RuntimeDirectory(), dir);  // Found again as it is.

  // Without XDG_RUNTIME_DIR it is per user in /tmp.
  setenv("XDG_RUNTIME_DIR", "", 1);
  EXPECT_EQ(RuntimeDirectory(), "/tmp/vesta-" + std::to_string(geteuid()));
}

TEST_F(RuntimeDirectoryTest, RefusedWhenOthersCouldReachItOrItIsNoDirectory) {
  const std::string dir = Expected();
  // Refused, with a sentence that names the directory and says what is wrong with it.
  const auto expect_refused = [&](const std::string& says) {
    std::string problem;
    EXPECT_EQ(RuntimeDirectory(&problem), std::nullopt);
    EXPECT_NE(problem.find(dir + " " + says), std::string::npos) << problem;
  };
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  for (mode_t mode : {0755, 0710, 0701, 0770}) {
    SCOPED_TRACE(mode);
    ASSERT_EQ(chmod(dir.c_str(), mode), 0);
    expect_refused("is open to other users");
  }
  // Neither end of a pipe uses it then.
  std::unique_ptr<PipeListener> listener;
  std::unique_ptr<Pipe> client;
  uint32_t error = 0;
  EXPECT_EQ(PipeListener::Create(UniqueName(), listener, error), IoResult::kFailed);
  EXPECT_NE(error, 0u);
  EXPECT_EQ(Pipe::Connect(UniqueName(), 100, client, error), IoResult::kFailed);
  ASSERT_EQ(chmod(dir.c_str(), 0700), 0);
  EXPECT_EQ(RuntimeDirectory(), dir);

  // A directory owned by someone else, even a private one.
  if (geteuid() == 0) {
    ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
    expect_refused("belongs to user id 65534");
  }
  ASSERT_EQ(rmdir(dir.c_str()), 0);

  // A symbolic link to a good directory: in a shared /tmp anyone could plant one.
  const std::string target = temp_dir_ + "/elsewhere";
  ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
  ASSERT_EQ(symlink(target.c_str(), dir.c_str()), 0);
  expect_refused("is a symbolic link");
  ASSERT_EQ(unlink(dir.c_str()), 0);

  ASSERT_TRUE(std::ofstream(dir).good());
  expect_refused("is not a directory");

  // The parent must exist: only the last level is created.
  setenv("XDG_RUNTIME_DIR", (temp_dir_ + "/missing").c_str(), 1);
  EXPECT_EQ(RuntimeDirectory(), std::nullopt);
}

TEST(SocketPath, LongNamesAreReplacedByTheirHashAndEscapesAreRefused) {
  constexpr size_t kMax = sizeof(sockaddr_un::sun_path) - 1;
  const std::string dir = "/run/user/1000/vesta";
  EXPECT_EQ(SocketPath(dir, u"qv_ve_svr_alice"), dir + "/qv_ve_svr_alice");

  // The longest name that fits stays as it is; one more character and it is hashed.
  const std::string fits(kMax - dir.size() - 1, 'n');
  EXPECT_EQ(SocketPath(dir, Utf8ToUtf16(fits)), dir + "/" + fits);
  const std::optional<std::string> hashed = SocketPath(dir, Utf8ToUtf16(fits + "n"));
  ASSERT_TRUE(hashed.has_value());
  EXPECT_EQ(hashed->size(), dir.size() + 1 + 3 + 16);
  EXPECT_EQ(hashed->substr(0, dir.size() + 4), dir + "/qv_");
  // Two long names that differ only at the end stay apart.
  EXPECT_NE(SocketPath(dir, Utf8ToUtf16(fits + "m")), hashed);

  // The hash is FNV-1a 64 over the UTF-8 bytes of the name, as other tools may recompute it.
  const std::u16string long_user = u"qv_ve_svr_" + std::u16string(100, u'u');
  EXPECT_EQ(SocketPath(dir, long_user), dir + "/qv_c34f780237e75ad9");

  // Names that leave the directory, and a directory too long for any name, are refused.
  for (const std::u16string& name :
       {std::u16string(u""), std::u16string(u"."), std::u16string(u".."), std::u16string(u"../x"),
        std::u16string(u"a/b"), std::u16string(u"a\0b", 3)}) {
    SCOPED_TRACE(Utf16ToUtf8(name));
    EXPECT_EQ(SocketPath(dir, name), std::nullopt);
  }
  const std::string huge_dir(sizeof(sockaddr_un::sun_path), 'd');
  EXPECT_EQ(SocketPath(huge_dir, u"x"), std::nullopt);
}

// A listener's socket file is its own: made in place of a stale one, removed when it goes; any
// other file of that name is left alone.
TEST_F(RuntimeDirectoryTest, ListenerOwnsItsSocketFileAndReplacesOnlyAStaleOne) {
  ASSERT_TRUE(RuntimeDirectory().has_value());
  const std::u16string name = UniqueName();
  const std::string path = *SocketPath(Expected(), name);

  // What a crashed server leaves: a socket file nobody listens on.
  const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(stale, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  ASSERT_EQ(bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  close(stale);
  uint32_t error = 0;
  ASSERT_EQ(PipeListener::Create(name, listener_, error), IoResult::kOk) << error;
  EXPECT_TRUE(std::filesystem::is_socket(path));
  ASSERT_NO_FATAL_FAILURE(ConnectTo(*listener_, name, client_, server_));
  listener_.reset();
  EXPECT_FALSE(std::filesystem::exists(path));

  // A plain file of that name is somebody's data.
  ASSERT_TRUE(std::ofstream(path).good());
  EXPECT_EQ(PipeListener::Create(name, listener_, error), IoResult::kFailed);
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
}

#endif  // !_WIN32

}  // namespace
}  // namespace qv::platform
