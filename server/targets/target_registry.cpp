#include "server/targets/target_registry.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

#include "platform/wide_string.h"
#include "serverlink/frame.h"
#include "serverlink/wire_fields.h"

namespace qv::server {
namespace {

std::u16string Number(uint64_t value) {
  return platform::Utf8ToUtf16(std::to_string(value));
}

std::u16string Quoted(std::u16string_view text) {
  return u"'" + std::u16string(text) + u"'";
}

std::u16string PowerText(PowerStatus status) {
  switch (status) {
    case PowerStatus::kOn:
      return u"On";
    case PowerStatus::kOff:
      return u"Off";
    case PowerStatus::kStandby:
      return u"Standby";
    case PowerStatus::kSuspend:
      return u"Suspend";
    case PowerStatus::kMainOnStandby:
      return u"MainOnStandby";
    case PowerStatus::kUnknown:
      break;
  }
  return u"Unknown";
}

std::u16string MacText(const Bytes& mac) {
  static constexpr char16_t kDigits[] = u"0123456789abcdef";
  std::u16string text;
  for (uint8_t byte : mac) {
    if (!text.empty()) text += u':';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::u16string VersionText(const std::array<uint32_t, 4>& version) {
  return Number(version[0]) + u"." + Number(version[1]) + u"." + Number(version[2]) + u"." +
         Number(version[3]);
}

// "a.b.c.d" as one number, a first: 10.1.0.2 is 0x0A010002.
std::optional<uint32_t> ParseAddress(std::u16string_view text) {
  uint32_t address = 0;
  uint32_t part = 0;
  int parts = 0;
  bool digits = false;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == u'.') {
      if (!digits || part > 255) return std::nullopt;
      address = (address << 8) | part;
      ++parts;
      part = 0;
      digits = false;
    } else if (text[i] >= u'0' && text[i] <= u'9' && part <= 255) {
      part = part * 10 + static_cast<uint32_t>(text[i] - u'0');
      digits = true;
    } else {
      return std::nullopt;
    }
  }
  if (parts != 4) return std::nullopt;
  return address;
}

std::u16string AddressText(uint32_t address) {
  return Number(address >> 24) + u"." + Number((address >> 16) & 255) + u"." +
         Number((address >> 8) & 255) + u"." + Number(address & 255);
}

}  // namespace

TargetRegistry::TargetRegistry(const Scenario& scenario, NotificationObserver observer,
                               DebugBackendFactory debug_backends)
    : scenario_(scenario),
      observer_(std::move(observer)),
      debug_backends_(std::move(debug_backends)),
      scripts_([this](const std::u16string& host, const ScriptStep& step, uint32_t first,
                      uint32_t count) { SendScripted(host, step, first, count); }) {
  std::lock_guard lock(mutex_);
  for (const Kit& kit : scenario_.kits) {
    if (kit.registered) {
      const TargetPtr target = Register(kTargetTypeKit, kit);
      if (kit.is_default) default_handle_ = target->handle;
    }
    for (const KitScript& script : kit.scripts) {
      if (script.trigger == ScriptTrigger::kServerStart) scripts_.Start(kit.host, script);
    }
  }
}

void TargetRegistry::AddClient(const ClientInfo& client, ClientSink* sink) {
  std::lock_guard lock(mutex_);
  clients_[client.id] = {client, sink};
}

void TargetRegistry::RemoveClient(uint64_t client_id) {
  std::vector<TargetPtr> targets;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [handle, target] : targets_)
      targets.push_back(target);
    ForgetClient(client_id);
  }
  CloseChannels(targets, client_id);
}

void TargetRegistry::ForgetClient(uint64_t client_id) {
  clients_.erase(client_id);
  console_flows_.erase(client_id);
  ++cancel_generation_[client_id];
  // Changes the client started end now: nobody waits for their answers any more.
  for (auto& entry : targets_) {
    if (entry.second->busy != 0 && entry.second->changer == client_id) {
      entry.second->cancelled = true;
    }
  }
  changed_cv_.notify_all();
  for (auto it = subscriptions_.begin(); it != subscriptions_.end();) {
    it->second.erase(client_id);
    it = it->second.empty() ? subscriptions_.erase(it) : std::next(it);
  }
  ProcessLocks::Changes released;
  locks_.ForgetClient(client_id, released);
  NotifyLockChanges(released);
  for (auto& [handle, target] : targets_) {
    target->notification_clients.erase(client_id);
    std::erase_if(target->protocols, [&](const auto& claim) { return claim.second == client_id; });
    if (target->owner != client_id) continue;
    target->owner = 0;
    CDisconnectNotification disconnect;
    disconnect.TargetKey = handle;
    Notify(EventGroup::Target, handle, disconnect);
  }
}

void TargetRegistry::Shutdown() {
  std::vector<TargetPtr> targets;
  {
    std::lock_guard lock(mutex_);
    shutting_down_ = true;
    changed_cv_.notify_all();
    for (const auto& [handle, target] : targets_)
      targets.push_back(target);
  }
  // Without the lock: a step being sent takes it, and so does a backend's last notification.
  scripts_.Stop();
  ShutDownDebugBackends(targets);
  CloseChannels(targets, 0);
}

TargetRegistry::~TargetRegistry() {
  Shutdown();
}

TargetRegistry::TargetPtr TargetRegistry::Find(uint32_t handle) const {
  const auto it = targets_.find(handle);
  return it != targets_.end() ? it->second : nullptr;
}

Status TargetRegistry::Lookup(uint32_t handle, TargetPtr& target) const {
  target = Find(handle);
  if (target != nullptr) return Status::Ok();
  if (handle == kNoTarget) {
    return Status::Fail(KXAPI_SERVER_INVALID_TARGET,
                        u"this operation needs a target handle, and the request named none");
  }
  return Status::Fail(KXAPI_SERVER_INVALID_TARGET, u"no target has the handle " + Number(handle));
}

Status TargetRegistry::Reachable(const Target& target) const {
  if (target.type == kTargetTypeCoreDump) {
    return Status::Fail(KXAPI_ERR_NOT_SUPPORTED_BY_THIS_TARGET_TYPE,
                        Quoted(target.kit.host) + u" is a core dump, not a kit");
  }
  if (!target.kit.reachable) {
    return Status::Fail(
        KXAPI_COMMS_ERR_NO_CONNECT,
        u"no kit answers at " + Quoted(target.kit.host) + u"; check the host name and the network");
  }
  return Status::Ok();
}

uint32_t TargetRegistry::NewHandle() {
  while (next_handle_ == 0 || next_handle_ == kNoTarget || targets_.count(next_handle_) != 0) {
    ++next_handle_;
  }
  return next_handle_++;
}

TargetRegistry::TargetPtr TargetRegistry::Register(std::u16string_view type, const Kit& kit) {
  auto target = std::make_shared<Target>();
  target->handle = NewHandle();
  target->type = type;
  target->kit = kit;
  target->cached_name = kit.name;
  AttachDebugBackend(*target);
  AttachEndpoints(*target);
  targets_[target->handle] = target;
  return target;
}

SharedBody TargetRegistry::Encode(const CNotification& notification) {
  MessageBuffer buffer;
  if (!WriteField(buffer, static_cast<uint32_t>(IncomingKind::kNotification)) ||
      !WriteField(buffer, notification.GetTypeNumber()) || !notification.Serialize(buffer)) {
    return nullptr;
  }
  return std::make_shared<const MessageBuffer>(std::move(buffer));
}

void TargetRegistry::Notify(EventGroup group, uint32_t key, const CNotification& notification) {
  const auto it = subscriptions_.find({group, key});
  if (it == subscriptions_.end()) return;
  const auto body = Encode(notification);
  if (body == nullptr) return;
  for (uint64_t client_id : it->second) {
    const auto client = clients_.find(client_id);
    if (client == clients_.end()) continue;
    client->second.second->Post(body);
    if (observer_) observer_(client_id, notification);
  }
}

Status TargetRegistry::HandOver(Target& target, uint64_t client_id) {
  target.owner = client_id;
  CConnectedNotification connected;
  connected.TargetKey = target.handle;
  connected.ConnectionInfo = target.kit.host;
  Notify(EventGroup::Target, target.handle, connected);
  return Status::Ok();
}

void TargetRegistry::NotifyPower(const Target& target, PowerOperation operation,
                                 PowerProgress progress) {
  CPowerStateNotification power;
  power.TargetKey = target.handle;
  power.Operation = static_cast<uint32_t>(operation);
  power.Progress = static_cast<uint32_t>(progress);
  Notify(EventGroup::Target, target.handle, power);
}

bool TargetRegistry::Sleep(Lock& lock, uint32_t ms, const Target& target, bool until_owned) {
  auto interrupted = [&] {
    return shutting_down_ || target.deleted || target.cancelled ||
           (until_owned && target.owner != 0);
  };
  changed_cv_.wait_for(lock, std::chrono::milliseconds(ms), interrupted);
  return !interrupted();
}

Status TargetRegistry::AddTarget(std::u16string_view type, std::u16string_view host,
                                 uint32_t& handle) {
  if (type != kTargetTypeKit && type != kTargetTypeCoreDump) {
    return Status::Fail(KXAPI_SERVER_INVALID_TARGET_TYPE,
                        u"unknown target type " + Quoted(type) + u" (VE or CoreDump)");
  }
  if (host.empty()) return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the host name is empty");
  std::lock_guard lock(mutex_);
  for (const auto& [existing, target] : targets_) {
    if (SameHost(target->kit.host, host)) {
      handle = existing;
      return Status::Ok();
    }
  }
  Kit kit;
  if (const Kit* known = scenario_.FindKit(host); known != nullptr && type == kTargetTypeKit) {
    kit = *known;
  } else {
    kit.host = host;
    kit.name = host;
    kit.power = PowerStatus::kUnknown;
    // A core dump is read from a file: it always "answers". An unknown kit never does.
    kit.reachable = type == kTargetTypeCoreDump;
  }
  const TargetPtr target = Register(type, kit);
  handle = target->handle;
  CTargetAddedNotification added;
  added.TargetKey = kNoTarget;
  added.HostName = target->kit.host;
  added.Handle = handle;
  Notify(EventGroup::Server, kNoTarget, added);
  return Status::Ok();
}

Status TargetRegistry::DeleteTarget(uint32_t handle) {
  TargetPtr target;
  {
    std::lock_guard lock(mutex_);
    if (Status status = Lookup(handle, target); !status.ok()) return status;
    target->deleted = true;
    targets_.erase(handle);
    locks_.ForgetTarget(handle);
    CTargetDeletedNotification deleted;
    deleted.TargetKey = kNoTarget;
    deleted.HostName = target->kit.host;
    deleted.Handle = handle;
    Notify(EventGroup::Server, kNoTarget, deleted);
    if (default_handle_ == handle) {
      default_handle_ = kNoTarget;
      CDefaultTargetChangedNotification changed;
      changed.TargetKey = kNoTarget;
      changed.OldHostName = target->kit.host;
      changed.OldHandle = handle;
      changed.NewHandle = kNoTarget;
      Notify(EventGroup::Server, kNoTarget, changed);
    }
    // Subscriptions to the target go with it; the clients drop theirs on TARGET_DELETED.
    for (auto it = subscriptions_.begin(); it != subscriptions_.end();) {
      const bool of_target = it->first.first != EventGroup::Server && it->first.second == handle;
      it = of_target ? subscriptions_.erase(it) : std::next(it);
    }
    changed_cv_.notify_all();
  }
  // The target is gone from the registry, so whatever its backend posts while it ends is dropped.
  ShutDownDebugBackends({target});
  CloseChannels({target}, 0);
  return Status::Ok();
}

U32List TargetRegistry::TargetList() const {
  std::shared_lock lock(mutex_);
  U32List handles;
  for (const auto& entry : targets_)
    handles.push_back(entry.first);
  return handles;
}

U32List TargetRegistry::TargetsWhere(std::u16string Kit::*field, std::u16string_view value) const {
  std::shared_lock lock(mutex_);
  U32List handles;
  for (const auto& [handle, target] : targets_) {
    if (SameHost(target->kit.*field, value)) handles.push_back(handle);
  }
  return handles;
}

U32List TargetRegistry::TargetsByHost(std::u16string_view host) const {
  return TargetsWhere(&Kit::host, host);
}

U32List TargetRegistry::TargetsByName(std::u16string_view name) const {
  return TargetsWhere(&Kit::name, name);
}

Status TargetRegistry::CoreDumpTargetByHost(std::u16string_view pseudo_host,
                                            uint32_t& handle) const {
  std::shared_lock lock(mutex_);
  for (const auto& [existing, target] : targets_) {
    if (target->type == kTargetTypeCoreDump && SameHost(target->kit.host, pseudo_host)) {
      handle = existing;
      return Status::Ok();
    }
  }
  return Status::Fail(KXAPI_SERVER_INVALID_TARGET,
                      u"no core dump was loaded for the host " + Quoted(pseudo_host));
}

Status TargetRegistry::GetDefaultTarget(uint32_t& handle) const {
  std::shared_lock lock(mutex_);
  if (default_handle_ == kNoTarget) {
    return Status::Fail(KXAPI_NO_TARGET, u"no default target is set");
  }
  handle = default_handle_;
  return Status::Ok();
}

Status TargetRegistry::SetDefaultTarget(uint32_t handle) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (default_handle_ == handle) return Status::Ok();
  CDefaultTargetChangedNotification changed;
  changed.TargetKey = kNoTarget;
  changed.OldHandle = default_handle_;
  if (const TargetPtr old = Find(default_handle_); old != nullptr) {
    changed.OldHostName = old->kit.host;
  }
  changed.NewHandle = handle;
  changed.NewHostName = target->kit.host;
  default_handle_ = handle;
  Notify(EventGroup::Server, kNoTarget, changed);
  return Status::Ok();
}

Status TargetRegistry::TargetInfo(uint32_t handle, NameValueList& info) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  const Kit& kit = target->kit;
  info = {{u"Handle", Number(handle)},
          {u"HostName", kit.host},
          {u"Name", kit.name},
          {u"TargetType", target->type},
          {u"PowerStatus", PowerText(kit.power)},
          {u"Reachable", kit.reachable ? u"Yes" : u"No"},
          {u"MacAddress", MacText(kit.mac)},
          {u"SdkVersion", VersionText(kit.sdk_version)},
          {u"Default", default_handle_ == handle ? u"Yes" : u"No"}};
  std::u16string numbers;
  for (const TargetProtocols::Summary& endpoint : target->endpoints->List())
    numbers += (numbers.empty() ? u"" : u" ") + Number(endpoint.number);
  // A kit without channels lists none, rather than an empty line.
  if (!numbers.empty()) info.push_back({u"Protocols", numbers});
  return Status::Ok();
}

Status TargetRegistry::TargetSummary(std::u16string_view host, NameValueList& summary) const {
  if (host.empty()) return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the host name is empty");
  std::shared_lock lock(mutex_);
  const Kit* kit = scenario_.FindKit(host);
  for (const auto& entry : targets_) {
    if (SameHost(entry.second->kit.host, host)) kit = &entry.second->kit;
  }
  if (kit == nullptr || !kit->reachable) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_CONNECT, u"no kit answers at " + Quoted(host) +
                                                        u"; check the host name and the network");
  }
  summary = {{u"HostName", kit->host},
             {u"Name", kit->name},
             {u"PowerStatus", PowerText(kit->power)},
             {u"MacAddress", MacText(kit->mac)},
             {u"SdkVersion", VersionText(kit->sdk_version)}};
  return Status::Ok();
}

Status TargetRegistry::HostName(uint32_t handle, std::u16string& host) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  host = target->kit.host;
  return Status::Ok();
}

Status TargetRegistry::TargetName(uint32_t handle, bool cached, std::u16string& name) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (cached) {
    name = target->cached_name;
    return Status::Ok();
  }
  if (Status status = Reachable(*target); !status.ok()) return status;
  name = target->kit.name;
  return Status::Ok();
}

Status TargetRegistry::SetTargetName(uint32_t handle, std::u16string_view name) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (name.empty()) return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"the new name is empty");
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (target->kit.name == name) return Status::Ok();
  target->kit.name = name;
  target->cached_name = name;
  CNameUpdateNotification update;
  update.TargetKey = handle;
  update.Name = target->kit.name;
  Notify(EventGroup::Target, handle, update);
  return Status::Ok();
}

Status TargetRegistry::MacAddress(uint32_t handle, Bytes& mac) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  mac = target->kit.mac;
  return Status::Ok();
}

Status TargetRegistry::SetCachedMacAddress(uint32_t handle, const Bytes& mac) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (mac.size() != 6) {
    return Status::Fail(KXAPI_SERVER_INVALID_ARG,
                        u"a MAC address has 6 bytes, not " + Number(mac.size()));
  }
  target->kit.mac = mac;
  return Status::Ok();
}

Status TargetRegistry::SetCachedSubnetMask(uint32_t handle, uint32_t mask) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  target->subnet_mask = mask;
  return Status::Ok();
}

Status TargetRegistry::CachedSubnetMask(uint32_t handle, uint32_t& mask) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  mask = target->subnet_mask;
  return Status::Ok();
}

Status TargetRegistry::SdkVersion(uint32_t handle, std::array<uint32_t, 4>& version) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  version = target->kit.sdk_version;
  return Status::Ok();
}

Status TargetRegistry::BusyCount(uint32_t handle, uint32_t& count) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  count = target->busy;
  return Status::Ok();
}

Status TargetRegistry::ConnectionInfo(uint32_t handle, std::u16string& info) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (target->owner == 0) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_CONNECTED,
                        Quoted(target->kit.host) + u" is not connected");
  }
  info = target->kit.host + u" (virtual kit " + Quoted(target->kit.name) + u")";
  return Status::Ok();
}

WStringList TargetRegistry::Discover() const {
  WStringList addresses;
  for (const Kit& kit : scenario_.kits) {
    // Mirador kits answer their own search only.
    if (kit.reachable && !kit.mirador && !kit.address.empty()) addresses.push_back(kit.address);
  }
  return addresses;
}

namespace {

Status CheckRanges(const FindRuleList& rules) {
  for (const FindRule& rule : rules) {
    if (rule.StartAddress > rule.EndAddress) {
      return Status::Fail(KXAPI_SERVER_INVALID_ARG, u"a search range ends before it starts (" +
                                                        AddressText(rule.StartAddress) + u" to " +
                                                        AddressText(rule.EndAddress) + u")");
    }
  }
  return Status::Ok();
}

// Calls `found` with each reachable kit of the given kind inside `rule`'s range.
template <class Found>
void KitsInRange(const Scenario& scenario, const FindRule& rule, bool mirador, Found found) {
  for (const Kit& kit : scenario.kits) {
    const std::optional<uint32_t> address = ParseAddress(kit.address);
    if (kit.reachable && kit.mirador == mirador && address.has_value() &&
        *address >= rule.StartAddress && *address <= rule.EndAddress) {
      found(kit);
    }
  }
}

}  // namespace

Status TargetRegistry::FindTargets(const FindRuleList& rules) {
  if (Status status = CheckRanges(rules); !status.ok()) return status;
  std::lock_guard lock(mutex_);
  const size_t steps = std::max<size_t>(rules.size(), 1);
  for (size_t i = 0; i < steps; ++i) {
    CTargetFindProgressNotification progress;
    progress.TargetKey = kNoTarget;
    progress.Percentage = static_cast<uint32_t>((i + 1) * 100 / steps);
    if (i < rules.size()) {
      KitsInRange(scenario_, rules[i], false,
                  [&](const Kit& kit) { progress.Targets.push_back(kit.address); });
    }
    Notify(EventGroup::Server, kNoTarget, progress);
  }
  return Status::Ok();
}

Status TargetRegistry::FindMiradorTargets(const FindRuleList& rules) {
  if (Status status = CheckRanges(rules); !status.ok()) return status;
  std::lock_guard lock(mutex_);
  const size_t steps = std::max<size_t>(rules.size(), 1);
  for (size_t i = 0; i < steps; ++i) {
    CMiradorTargetFindProgressNotification progress;
    progress.TargetKey = kNoTarget;
    progress.Phase = 1;
    progress.NumberOfPhases = 1;
    progress.Percentage = static_cast<uint32_t>((i + 1) * 100 / steps);
    progress.Description = u"searching for Mirador kits";
    if (i < rules.size()) {
      KitsInRange(scenario_, rules[i], true, [&](const Kit& kit) {
        MiradorTargetRecord found;
        found.HostName = kit.host;
        found.Name = kit.name;
        found.MacAddress = kit.mac;
        progress.FoundTargets.push_back(std::move(found));
      });
    }
    Notify(EventGroup::Server, kNoTarget, progress);
  }
  return Status::Ok();
}

Status TargetRegistry::PowerStatusOf(uint32_t handle, PowerStatus& status) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status result = Lookup(handle, target); !result.ok()) return result;
  if (Status result = Reachable(*target); !result.ok()) return result;
  status = target->kit.power;
  return Status::Ok();
}

Status TargetRegistry::PowerChange(uint64_t client_id, uint32_t handle, PowerOperation operation,
                                   PowerStatus to) {
  Lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (target->busy != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_BUSY, Quoted(target->kit.host) +
                                                  u" is busy with another power or connection "
                                                  u"change; try again when it is idle");
  }
  const bool on = target->kit.power == PowerStatus::kOn;
  const bool wants_on = operation == PowerOperation::kPowerOn;
  // Off, force off and reboot need the power on.
  if (wants_on == on) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_POWER_STATE,
                        Quoted(target->kit.host) + u" is already " +
                            (on ? u"on" : u"off (" + PowerText(target->kit.power) + u")"));
  }
  const KitTimings& timings = target->kit.timings;
  const uint32_t ms = operation == PowerOperation::kPowerOn    ? timings.boot_ms
                      : operation == PowerOperation::kPowerOff ? timings.power_off_ms
                      : operation == PowerOperation::kReboot
                          ? timings.power_off_ms + timings.boot_ms
                          : 0;
  ++target->busy;
  target->changer = client_id;
  target->cancelled = false;
  CBusyNotification busy;
  busy.TargetKey = handle;
  Notify(EventGroup::Target, handle, busy);
  NotifyPower(*target, operation, PowerProgress::kStarted);
  const bool finished = Sleep(lock, ms, *target);
  --target->busy;
  target->changer = 0;
  if (target->deleted) {
    return Status::Fail(KXAPI_COMMS_ERR_POWER_OPERATION_FAILED,
                        u"the target was deleted during the power change");
  }
  if (finished) {
    target->kit.power = to;
    NotifyPower(*target, operation, PowerProgress::kCompleted);
    // Tells whoever works with the kit that it went off without shutting down.
    if (operation == PowerOperation::kForcePowerOff) {
      CForcedPowerOffNotification forced;
      forced.TargetKey = handle;
      Notify(EventGroup::Target, handle, forced);
    }
  } else {
    NotifyPower(*target, operation, PowerProgress::kFailed);
  }
  CIdleNotification idle;
  idle.TargetKey = handle;
  Notify(EventGroup::Target, handle, idle);
  if (finished) return Status::Ok();
  if (target->cancelled) {
    target->cancelled = false;
    return Status::Fail(KXAPI_COMMS_ERR_OPERATION_CANCELLED,
                        u"the power change of " + Quoted(target->kit.host) +
                            u" was cancelled; the power state is unchanged");
  }
  return Status::Fail(KXAPI_COMMS_ERR_POWER_OPERATION_FAILED,
                      u"the server stopped during the power change");
}

Status TargetRegistry::PowerOn(uint64_t client_id, uint32_t handle) {
  return PowerChange(client_id, handle, PowerOperation::kPowerOn, PowerStatus::kOn);
}

Status TargetRegistry::PowerOff(uint64_t client_id, uint32_t handle) {
  return PowerChange(client_id, handle, PowerOperation::kPowerOff, PowerStatus::kOff);
}

Status TargetRegistry::Reboot(uint64_t client_id, uint32_t handle) {
  return PowerChange(client_id, handle, PowerOperation::kReboot, PowerStatus::kOn);
}

Status TargetRegistry::ForcePowerOff(uint64_t client_id, uint32_t handle) {
  return PowerChange(client_id, handle, PowerOperation::kForcePowerOff, PowerStatus::kOff);
}

Status TargetRegistry::CancelCurrentCommand(uint64_t client_id, uint32_t handle) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (target->busy != 0 && target->changer == client_id) {
    target->cancelled = true;
    changed_cv_.notify_all();
  }
  return Status::Ok();
}

void TargetRegistry::CancelClientCommands(uint64_t client_id) {
  std::lock_guard lock(mutex_);
  ++cancel_generation_[client_id];
  for (auto& entry : targets_) {
    Target& target = *entry.second;
    if (target.busy != 0 && target.changer == client_id) target.cancelled = true;
  }
  changed_cv_.notify_all();
}

Status TargetRegistry::Connect(uint64_t client_id, uint32_t handle) {
  Lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (target->owner == client_id) return Status::Ok();
  if (target->owner != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_TARGET_IN_USE,
                        Quoted(target->kit.host) +
                            u" is connected to another client; force a disconnection to take it");
  }
  if (target->busy != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_BUSY,
                        Quoted(target->kit.host) + u" is busy; try again when it is idle");
  }
  ++target->busy;
  target->changer = client_id;
  target->cancelled = false;
  CConnectNotification connecting;
  connecting.TargetKey = handle;
  Notify(EventGroup::Target, handle, connecting);
  const bool finished = Sleep(lock, target->kit.timings.connect_ms, *target, true);
  --target->busy;
  target->changer = 0;
  if (target->owner != 0) {
    return Status::Fail(KXAPI_COMMS_ERR_TARGET_IN_USE, u"another client forced the connection to " +
                                                           Quoted(target->kit.host) +
                                                           u" while this one was connecting");
  }
  if (!finished) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_CONNECT, target->deleted
                                                        ? u"the target was deleted while connecting"
                                                        : u"the server stopped while connecting");
  }
  return HandOver(*target, client_id);
}

Status TargetRegistry::Disconnect(uint64_t client_id, uint32_t handle) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (target->owner != client_id) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_CONNECTED,
                        u"this client is not connected to " + Quoted(target->kit.host));
  }
  target->owner = 0;
  // A client waiting in RequestConnection may take it now.
  changed_cv_.notify_all();
  CDisconnectNotification disconnect;
  disconnect.TargetKey = handle;
  Notify(EventGroup::Target, handle, disconnect);
  return Status::Ok();
}

Status TargetRegistry::RequestConnection(uint64_t client_id, uint32_t handle) {
  Lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (target->owner == client_id) return Status::Ok();
  const uint64_t generation = cancel_generation_[client_id];
  changed_cv_.wait(lock, [&] {
    return shutting_down_ || target->deleted || cancel_generation_[client_id] != generation ||
           (target->owner == 0 && target->busy == 0);
  });
  if (cancel_generation_[client_id] != generation) {
    return Status::Fail(
        KXAPI_COMMS_ERR_OPERATION_CANCELLED,
        u"the request for the connection to " + Quoted(target->kit.host) + u" was cancelled");
  }
  if (shutting_down_ || target->deleted) {
    return Status::Fail(KXAPI_COMMS_ERR_NO_CONNECT,
                        target->deleted ? u"the target was deleted while waiting for it"
                                        : u"the server stopped while waiting for the target");
  }
  return HandOver(*target, client_id);
}

Status TargetRegistry::ForceDisconnect(uint64_t client_id, uint32_t handle) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  if (target->owner == client_id) return Status::Ok();
  if (target->owner != 0) {
    CForceDisconnectedNotification forced;
    forced.TargetKey = handle;
    const auto client = clients_.find(client_id);
    forced.Requester =
        u"process " + Number(client != clients_.end() ? client->second.first.process_id : 0);
    Notify(EventGroup::Target, handle, forced);
  }
  // A connection attempt under way gives up: this client has the target now.
  changed_cv_.notify_all();
  return HandOver(*target, client_id);
}

Status TargetRegistry::ConnectionStateOf(uint64_t client_id, uint32_t handle,
                                         ConnectionState& state) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  state = target->owner == 0           ? ConnectionState::kAvailable
          : target->owner == client_id ? ConnectionState::kConnected
                                       : ConnectionState::kInUse;
  return Status::Ok();
}

uint32_t TargetRegistry::ProcessIdOf(uint64_t client_id) const {
  const auto client = clients_.find(client_id);
  return client != clients_.end() ? client->second.first.process_id : 0;
}

Status TargetRegistry::ConnectForNotifications(uint64_t client_id, uint32_t handle) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  target->notification_clients.insert(client_id);
  return Status::Ok();
}

Status TargetRegistry::DisconnectFromNotifications(uint64_t client_id, uint32_t handle) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (target->notification_clients.erase(client_id) == 0) {
    return Status::Fail(
        KXAPI_COMMS_ERR_NOT_CONNECTED,
        u"this client is not connected to " + Quoted(target->kit.host) + u" for notifications");
  }
  return Status::Ok();
}

Status TargetRegistry::SetProtocolInUse(uint64_t client_id, uint32_t handle, uint32_t protocol) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  const auto [claim, added] = target->protocols.try_emplace(protocol, client_id);
  if (!added && claim->second != client_id) {
    return Status::Fail(KXAPI_COMMS_ERR_ALREADY_REGISTERED,
                        u"protocol " + Number(protocol) + u" of " + Quoted(target->kit.host) +
                            u" is in use by process " + Number(ProcessIdOf(claim->second)));
  }
  return Status::Ok();
}

Status TargetRegistry::ClearProtocolInUse(uint64_t client_id, uint32_t handle, uint32_t protocol) {
  std::lock_guard lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  const auto claim = target->protocols.find(protocol);
  if (claim == target->protocols.end() || claim->second != client_id) {
    return Status::Fail(KXAPI_COMMS_ERR_NOT_REGISTERED, u"this client does not hold protocol " +
                                                            Number(protocol) + u" of " +
                                                            Quoted(target->kit.host));
  }
  target->protocols.erase(claim);
  return Status::Ok();
}

Status TargetRegistry::QueryProtocolInUse(uint32_t handle, uint32_t protocol, bool& in_use) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  in_use = target->protocols.count(protocol) != 0;
  return Status::Ok();
}

Status TargetRegistry::ProtocolsHeldBy(uint64_t client_id, uint32_t handle,
                                       U32List& protocols) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  protocols.clear();
  for (const auto& [protocol, holder] : target->protocols) {
    if (holder == client_id) protocols.push_back(protocol);
  }
  return Status::Ok();
}

Status TargetRegistry::ProtocolInfo(uint64_t client_id, uint32_t handle, uint32_t protocol,
                                    NameValueList& info) const {
  std::shared_lock lock(mutex_);
  TargetPtr target;
  if (Status status = Lookup(handle, target); !status.ok()) return status;
  if (Status status = Reachable(*target); !status.ok()) return status;
  const auto claim = target->protocols.find(protocol);
  const uint64_t holder = claim != target->protocols.end() ? claim->second : 0;
  info = {{u"Protocol", Number(protocol)},
          {u"InUse", holder != 0 ? u"Yes" : u"No"},
          {u"ProcessId", Number(holder != 0 ? ProcessIdOf(holder) : 0)},
          {u"HeldByCaller", holder == client_id ? u"Yes" : u"No"}};
  // The endpoint behind the number, if the target has one there.
  for (const TargetProtocols::Summary& endpoint : target->endpoints->List()) {
    if (endpoint.number != protocol) continue;
    info.push_back({u"Endpoint", platform::Utf8ToUtf16(EndpointKindName(endpoint.kind))});
    info.push_back({u"Available", endpoint.available ? u"Yes" : u"No"});
    info.push_back({u"OpenChannels", Number(static_cast<uint32_t>(endpoint.open_channels))});
  }
  return Status::Ok();
}

Status TargetRegistry::Subscribe(uint64_t client_id, EventGroup group, uint32_t key) {
  std::lock_guard lock(mutex_);
  if (group != EventGroup::Server) {
    TargetPtr target;
    if (Status status = Lookup(key, target); !status.ok()) return status;
  } else {
    key = kNoTarget;
  }
  subscriptions_[{group, key}].insert(client_id);
  StartScriptsOnSubscription(group, key);
  return Status::Ok();
}

void TargetRegistry::Unsubscribe(uint64_t client_id, EventGroup group, uint32_t key) {
  std::lock_guard lock(mutex_);
  if (group == EventGroup::Server) key = kNoTarget;
  const auto it = subscriptions_.find({group, key});
  if (it == subscriptions_.end()) return;
  it->second.erase(client_id);
  if (it->second.empty()) subscriptions_.erase(it);
}

size_t TargetRegistry::SubscriptionCount(uint64_t client_id) const {
  std::shared_lock lock(mutex_);
  size_t count = 0;
  for (const auto& entry : subscriptions_)
    count += entry.second.count(client_id);
  return count;
}

U32List TargetRegistry::ClientProcessIds() const {
  std::shared_lock lock(mutex_);
  U32List ids;
  for (const auto& entry : clients_)
    ids.push_back(entry.second.first.process_id);
  return ids;
}

}  // namespace qv::server
