// The registry's console: each target's cache, console input, output paced on the clients'
// acknowledgements, and the kits' scripts (whose console output takes the same way).
#include <string>
#include <utility>
#include <vector>

#include "platform/wide_string.h"
#include "server/kits/scenario_script.h"
#include "server/targets/target_registry.h"
#include "serverlink/frame.h"

namespace qv::server {
namespace {

uint64_t NowMilliseconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

}  // namespace

std::u16string TargetRegistry::EmitConsoleOutput(Target& target,
                                                 CConsoleOutputNotification&& output) {
  const auto it = subscriptions_.find({EventGroup::ConsoleOutput, target.handle});
  // The clients whose backlog has room; a piece nobody takes is not encoded.
  std::vector<std::pair<uint64_t, ConsoleFlow*>> takers;
  if (it != subscriptions_.end()) {
    takers.reserve(it->second.size());
    for (uint64_t client_id : it->second) {
      if (clients_.count(client_id) == 0) continue;
      ConsoleFlow& flow = console_flows_[client_id];
      if (flow.waiting.size() < kConsoleBacklog) {
        takers.emplace_back(client_id, &flow);
      } else {
        if (flow.dropped == 0) flow.dropped_from = target.handle;
        ++flow.dropped;
      }
    }
  }
  SharedBody body;
  std::shared_ptr<const CConsoleOutputNotification> logged;
  if (!takers.empty()) {
    body = Encode(output);
    if (observer_) logged = std::make_shared<const CConsoleOutputNotification>(output);
  }
  // The text is needed no more once encoded: the cache takes it.
  std::u16string dropped =
      target.console.Add({output.Port, output.Category, output.Timestamp, output.ProcessId,
                          output.ThreadId, std::move(output.Text)});
  if (body == nullptr) return dropped;
  for (auto& [client_id, flow] : takers) {
    flow->waiting.emplace_back(body, logged);
    DrainConsoleFlow(client_id, *flow);
  }
  return dropped;
}

void TargetRegistry::DrainConsoleFlow(uint64_t client_id, ConsoleFlow& flow) {
  const auto client = clients_.find(client_id);
  if (client == clients_.end()) return;
  // A full window refills once half of it has been acknowledged, so that the client's writer
  // sends pieces in batches rather than one for each acknowledgement.
  if (flow.refill_at_half) {
    if (flow.in_flight > kConsoleInFlight / 2) return;
    flow.refill_at_half = false;
  }
  while (flow.in_flight < kConsoleInFlight && !flow.waiting.empty()) {
    client->second.second->Post(flow.waiting.front().first);
    if (observer_ && flow.waiting.front().second) {
      observer_(client_id, *flow.waiting.front().second);
    }
    flow.waiting.pop_front();
    ++flow.in_flight;
  }
  flow.refill_at_half = flow.in_flight >= kConsoleInFlight;
  // The notice of a drop comes once the client has caught up with what was kept, so it follows
  // the last piece before the gap; it goes to this client only, and into the cache it came from.
  if (flow.dropped == 0 || !flow.waiting.empty() || flow.in_flight >= kConsoleInFlight) return;
  CConsoleOutputNotification notice;
  notice.TargetKey = flow.dropped_from;
  notice.Timestamp = NowMilliseconds();
  notice.Text = u"[vesta-kx: " + platform::Utf8ToUtf16(std::to_string(flow.dropped)) +
                u" pieces of console output were not sent to this client because it did not "
                u"acknowledge them; the console cache holds them]\n";
  flow.dropped = 0;
  if (const TargetPtr target = Find(notice.TargetKey)) {
    target->console.Add({0, 0, notice.Timestamp, 0, 0, notice.Text});
  }
  const auto body = Encode(notice);
  if (body == nullptr) return;
  client->second.second->Post(body);
  if (observer_) observer_(client_id, notice);
  flow.refill_at_half = ++flow.in_flight >= kConsoleInFlight;
}

void TargetRegistry::AcknowledgeConsoleOutput(uint64_t client_id) {
  std::lock_guard lock(mutex_);
  const auto it = console_flows_.find(client_id);
  // An acknowledgement with nothing in flight is a client's mistake; it changes nothing.
  if (it == console_flows_.end() || it->second.in_flight == 0) return;
  --it->second.in_flight;
  DrainConsoleFlow(client_id, it->second);
}

Status TargetRegistry::ConsoleCacheSize(uint32_t handle, uint32_t& size) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  size = target->console.Size();
  return Status::Ok();
}

Status TargetRegistry::SetConsoleCacheSize(uint32_t handle, uint32_t size) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (!target->console.SetSize(size)) {
    return Status::Fail(KXAPI_SERVER_INVALID_ARG,
                        u"the console cache size must be from 1 to " +
                            platform::Utf8ToUtf16(std::to_string(ConsoleCache::kMaxSize)) +
                            u" pieces, not " + platform::Utf8ToUtf16(std::to_string(size)));
  }
  return Status::Ok();
}

Status TargetRegistry::ConsoleCacheUpperBound(uint32_t handle, uint32_t& upper_bound) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  upper_bound = target->console.UpperBound();
  return Status::Ok();
}

Status TargetRegistry::FetchConsoleCache(uint32_t handle, uint32_t start, uint32_t& next,
                                         ConsoleCacheRecordList& records) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  next = target->console.Fetch(start, records);
  return Status::Ok();
}

Status TargetRegistry::ClearConsoleCache(uint32_t handle) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  target->console.Clear();
  return Status::Ok();
}

Status TargetRegistry::SendConsoleInput(uint32_t handle, const ConsoleCacheRecord& input,
                                        bool echo) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (input.Text.empty()) {
    return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the console input is empty");
  }
  // The backend hands it to the processes that read their console (the local target's); a
  // virtual kit's take it without a reader. When asked, it is echoed.
  if (target->debug != nullptr) {
    target->debug->ConsoleInput(input.ProcessId, platform::Utf16ToUtf8(input.Text));
  }
  if (!echo) return Status::Ok();
  CConsoleOutputNotification output;
  output.TargetKey = handle;
  output.Port = input.Port;
  output.Category = input.Category;
  output.ProcessId = input.ProcessId;
  output.Timestamp = NowMilliseconds();
  output.Text = input.Text;
  EmitConsoleOutput(*target, std::move(output));
  return Status::Ok();
}

void TargetRegistry::StartScriptsOnSubscription(EventGroup group, uint32_t key) {
  for (const Kit& kit : scenario_.kits) {
    for (const KitScript& script : kit.scripts) {
      if (script.trigger != ScriptTrigger::kFirstSubscription) continue;
      const auto route = FindNotificationRoute(script.steps.front().type_number);
      if (!route.has_value() || route->group != group || scripts_started_.count(&script) != 0) {
        continue;
      }
      // The Server group's subscription is for the whole server; the others' for one target.
      if (group != EventGroup::Server) {
        const TargetPtr target = Find(key);
        if (target == nullptr || target->type != kTargetTypeKit ||
            !SameHost(target->kit.host, kit.host)) {
          continue;
        }
      }
      scripts_started_.insert(&script);
      scripts_.Start(kit.host, script);
    }
  }
}

void TargetRegistry::SendScripted(const std::u16string& host, const ScriptStep& step,
                                  uint32_t first, uint32_t count) {
  const auto route = FindNotificationRoute(step.type_number);
  if (!route.has_value()) return;
  TargetPtr target;
  uint32_t target_key = kNoTarget;
  {
    std::shared_lock lock(mutex_);
    if (shutting_down_) return;
    for (const auto& [handle, candidate] : targets_) {
      if (candidate->type == kTargetTypeKit && SameHost(candidate->kit.host, host)) {
        target = candidate;
        break;
      }
    }
    // A kit outside the target list has no handle and nobody subscribed to it; the Server group
    // still hears of it.
    if (target == nullptr && route->group != EventGroup::Server) return;
    if (target != nullptr && route->group != EventGroup::Server) target_key = target->handle;
  }
  // Built without the lock: decoding a step's text and expanding its placeholders does not hold
  // up the other clients' requests. Only the script thread sends steps, so their order stays.
  std::vector<std::shared_ptr<CNotification>> notifications;
  notifications.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    auto notification = ScriptedNotification(step, target_key, first + i, &script_texts_);
    if (notification == nullptr) return;
    notifications.push_back(std::move(notification));
  }
  // A burst under one taking of the lock: each taking may wake a client's acknowledgement that
  // waits for it, and a burst of pieces one by one paid that wake-up for every piece.
  std::lock_guard lock(mutex_);
  if (shutting_down_ || (target != nullptr && target->deleted)) return;
  for (auto& notification : notifications) {
    if (step.type_number == CConsoleOutputNotification::kTypeNumber && target != nullptr) {
      script_texts_.Give(EmitConsoleOutput(
          *target, std::move(static_cast<CConsoleOutputNotification&>(*notification))));
    } else {
      Notify(route->group, route->group == EventGroup::Server ? kNoTarget : target_key,
             *notification);
    }
  }
}

}  // namespace qv::server
