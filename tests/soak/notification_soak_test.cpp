// A soak of the real vesta-kx: many clients, each subscribed to every event group of every kit,
// while every kit's scripts push numbered notifications in four groups. Each client must hear
// every notification of every stream exactly once and in order, and the server's resident memory
// and thread count must not grow while the streams run.
//
// The size comes from the environment, so that the check runs briefly and a soak runs for
// minutes with the same code: VEKX_SOAK_CLIENTS (16), VEKX_SOAK_KITS (100), VEKX_SOAK_SECONDS
// (10, how long the streams run) and VEKX_SOAK_PERIOD_MS (1000, each stream's time between two
// notifications).

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "requests/private_api.h"
#include "server/server_harness.h"

namespace qv::servertest {
namespace {

using Clock = std::chrono::steady_clock;

uint32_t Setting(const char* name, uint32_t fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? static_cast<uint32_t>(std::stoul(text)) : fallback;
}

// The streams each kit pushes: a notification of four groups with a text field that carries the
// step's repetition number.
struct Stream {
  const char* notification;
  const char* field;
};
constexpr std::array<Stream, 4> kStreams{{{"FILE_SERVING_ROOT_CHANGED", "Path"},
                                          {"OWNERSHIP_REQUEST", "Requester"},
                                          {"FILE_COPY_SKIPPED", "TargetPath"},
                                          {"EVENT_VIEWER_XML_CHANGED", "TitleId"}}};

// Each script starts with a Server-group notification, so that every script waits for the first
// subscription to the Server group; the clients make it only once all of them have subscribed to
// their kits. The kits' first notifications are spread over one period.
std::string SoakScenario(uint32_t kits, uint32_t repeats, uint32_t period_ms) {
  std::string text = "kits:\n";
  for (uint32_t kit = 0; kit < kits; ++kit) {
    text += "  - host: soak-" + std::to_string(kit) + "\n    power: on\n    scripts:\n";
    for (const Stream& stream : kStreams) {
      text += "      - steps:\n          - notification: USB_TARGET_PLUGGED_IN\n";
      text += "            after_ms: " + std::to_string(kit * period_ms / kits) + "\n";
      text += std::string("          - notification: ") + stream.notification + "\n";
      text += "            after_ms: " + std::to_string(period_ms) + "\n";
      text += "            repeat: " + std::to_string(repeats) + "\n";
      text += std::string("            fields: {") + stream.field + ": \"{n}\"}\n";
    }
  }
  return text;
}

// The stream a notification belongs to and the number it carries; false for others.
bool StreamNumber(const CNotification& notification, size_t& stream, std::u16string& number) {
  if (const auto* n = dynamic_cast<const CFileServingRootChangedNotification*>(&notification)) {
    stream = 0, number = n->Path;
  } else if (const auto* o = dynamic_cast<const COwnershipRequestNotification*>(&notification)) {
    stream = 1, number = o->Requester;
  } else if (const auto* f = dynamic_cast<const CFileCopySkippedNotification*>(&notification)) {
    stream = 2, number = f->TargetPath;
  } else if (const auto* v =
                 dynamic_cast<const CEventViewerXMLChangedNotification*>(&notification)) {
    stream = 3, number = v->TitleId;
  } else {
    return false;
  }
  return true;
}

// One client's sink on every group: the next number it expects of each (kit, stream), and what
// arrived out of turn. Deliveries come on the client's one notification thread.
class StreamChecker final : public IVEEventNotifyClient {
 public:
  bool IsSameSink(const IVEEventNotifyClient& other) const override { return &other == this; }
  HRESULT Deliver(uint32_t, const std::shared_ptr<CNotification>& notification) override {
    size_t stream = 0;
    std::u16string text;
    if (!StreamNumber(*notification, stream, text)) return S_OK;
    const uint32_t number =
        static_cast<uint32_t>(std::stoul(std::string(text.begin(), text.end())));
    std::lock_guard lock(mutex_);
    uint32_t& next = next_[uint64_t{notification->GetTargetKey()} << 8 | stream];
    if (number != next && faults_.size() < 10) {
      faults_.push_back("kit " + std::to_string(notification->GetTargetKey()) + " stream " +
                        std::to_string(stream) + ": " + std::to_string(number) + " where " +
                        std::to_string(next) + " was due");
    }
    next = number + 1;
    ++heard_;
    return S_OK;
  }
  uint64_t Heard() const {
    std::lock_guard lock(mutex_);
    return heard_;
  }
  // The faults, and a stream that did not reach its last number.
  std::vector<std::string> Check(const std::vector<uint32_t>& kits, uint32_t repeats) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> faults = faults_;
    for (uint32_t kit : kits) {
      for (size_t stream = 0; stream < kStreams.size(); ++stream) {
        const auto found = next_.find(uint64_t{kit} << 8 | stream);
        const uint32_t reached = found == next_.end() ? 0 : found->second;
        if (reached != repeats && faults.size() < 20) {
          faults.push_back("kit " + std::to_string(kit) + " stream " + std::to_string(stream) +
                           " ended at " + std::to_string(reached));
        }
      }
    }
    return faults;
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<uint64_t, uint32_t> next_;
  std::vector<std::string> faults_;
  uint64_t heard_ = 0;
};

// The server's resident bytes and threads, from /proc.
struct Footprint {
  uint64_t resident_kib = 0;
  uint32_t threads = 0;
};

Footprint FootprintOf(uint32_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  Footprint footprint;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) footprint.resident_kib = std::stoull(line.substr(6));
    if (line.rfind("Threads:", 0) == 0) footprint.threads = std::stoul(line.substr(8));
  }
  return footprint;
}

TEST(NotificationSoak, EveryClientHearsEveryStreamOnceInOrderAndTheServerStaysFlat) {
  const uint32_t clients = Setting("VEKX_SOAK_CLIENTS", 16);
  const uint32_t kits = Setting("VEKX_SOAK_KITS", 100);
  const uint32_t seconds = Setting("VEKX_SOAK_SECONDS", 10);
  const uint32_t period_ms = std::max<uint32_t>(Setting("VEKX_SOAK_PERIOD_MS", 1000), 1);
  const uint32_t repeats = std::max<uint32_t>(seconds * 1000 / period_ms, 1);

  // A sanitizer's quarantine of freed memory would look like growth.
  testing::ScopedVariable asan{"ASAN_OPTIONS", "quarantine_size_mb=1:detect_leaks=0"};
  const std::u16string user = TestUser();
  ServerProcess server(user, {"--log-level", "1", "--scenario",
                              WriteScenario(SoakScenario(kits, repeats, period_ms), "soak")});
  ASSERT_TRUE(server.Started());
  ASSERT_TRUE(WaitUntil([&] { return platform::ServerIsReady(user, RunDir(), 0); }, 60000))
      << server.Output();
  const std::optional<uint32_t> pid = platform::RunningServerProcessId(user, RunDir());
  ASSERT_TRUE(pid.has_value());

  std::vector<std::shared_ptr<CKXVEPrivateAPI>> links(clients);
  std::vector<std::shared_ptr<StreamChecker>> checkers(clients);
  for (uint32_t i = 0; i < clients; ++i) {
    links[i] = CKXVEPrivateAPI::Create({user, RunDir()});
    checkers[i] = std::make_shared<StreamChecker>();
  }
  CGetTargetListResponse list;
  ASSERT_EQ(links[0]->Call(kNone, CGetTargetListRequest(), list), S_OK);
  ASSERT_EQ(list.Targets.size(), kits);

  // Every client on every group of every kit, all clients at once; then the Server group.
  std::atomic<uint32_t> refused{0};
  const auto each_client = [&](const std::function<void(uint32_t)>& work) {
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < clients; ++i)
      threads.emplace_back(work, i);
    for (auto& thread : threads)
      thread.join();
  };
  each_client([&](uint32_t i) {
    for (uint32_t handle : list.Targets) {
      for (size_t group = 0; group < kEventGroupCount; ++group) {
        if (static_cast<EventGroup>(group) == EventGroup::Server) continue;
        if (links[i]->Advise(static_cast<EventGroup>(group), checkers[i], handle) != S_OK)
          ++refused;
      }
    }
  });
  ASSERT_EQ(refused.load(), 0u);
  each_client([&](uint32_t i) {
    if (links[i]->Advise(EventGroup::Server, checkers[i], kNone) != S_OK) ++refused;
  });
  ASSERT_EQ(refused.load(), 0u);
  const auto started = Clock::now();

  // The footprint once the streams have settled (after a minute, or a third of a shorter run)
  // and at their end.
  const auto settled = started + std::min<Clock::duration>(std::chrono::seconds(60),
                                                           std::chrono::seconds(seconds) / 3);
  std::this_thread::sleep_until(settled);
  const Footprint early = FootprintOf(*pid);
  const uint64_t expected = uint64_t{kits} * kStreams.size() * repeats;
  const auto all_heard = [&] {
    return std::all_of(checkers.begin(), checkers.end(),
                       [&](const auto& checker) { return checker->Heard() >= expected; });
  };
  const int drain_ms = static_cast<int>(seconds * 1000 + period_ms) * 2 + 30000;
  const bool heard = WaitUntil(all_heard, drain_ms);
  const Footprint late = FootprintOf(*pid);

  for (uint32_t i = 0; i < clients; ++i) {
    const std::vector<std::string> faults = checkers[i]->Check(list.Targets, repeats);
    EXPECT_TRUE(faults.empty()) << "client " << i << ": " << faults.front();
  }
  EXPECT_TRUE(heard) << "the streams did not end within " << drain_ms << " ms";
  EXPECT_LE(late.resident_kib, early.resident_kib + early.resident_kib / 10 + 16 * 1024)
      << "resident KiB from " << early.resident_kib << " to " << late.resident_kib;
  EXPECT_LE(late.threads, early.threads) << "threads";
  std::printf(
      "%u clients, %u kits, %u s: %llu notifications each; server %llu KiB and %u threads "
      "after %lld s, %llu KiB and %u threads at the end\n",
      clients, kits, seconds, static_cast<unsigned long long>(expected),
      static_cast<unsigned long long>(early.resident_kib), early.threads,
      static_cast<long long>(
          std::chrono::duration_cast<std::chrono::seconds>(settled - started).count()),
      static_cast<unsigned long long>(late.resident_kib), late.threads);

  for (auto& link : links)
    link->Disconnect();
  bool asked = false;
  EXPECT_EQ(server.Stop(asked), std::optional<int>(0)) << server.Output();
}

}  // namespace
}  // namespace qv::servertest
