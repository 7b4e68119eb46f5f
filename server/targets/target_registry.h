#pragma once
// The targets that all clients of the server share, their simulated state, and who subscribed
// to which notifications.
//
// One lock guards everything here. Notifications are encoded and handed to each subscribed
// client's queue while it is held, so every client sees them in the order the changes happened.
// Queries that only read take it shared, so that many clients asking at once on several CPUs do
// not queue behind each other (a reader that found the lock taken used to sleep in the kernel).
// A change that takes simulated time (power, connecting) is split into a start and a finish,
// each under the lock, with the waiting in between done without it: other clients carry on.

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "requests/notifications.h"
#include "requests/target_states.h"
#include "requests/wire_types.h"
#include "server/core/status.h"
#include "server/debug/debug_backends.h"
#include "server/kits/console_cache.h"
#include "server/kits/scenario.h"
#include "server/kits/script_runner.h"
#include "server/kits/text_blocks.h"
#include "server/protocols/target_protocols.h"
#include "server/targets/console_pacing.h"
#include "server/targets/process_locks.h"

namespace qv::server {

// One encoded message body (kind word first), shared by every client it goes to and written to
// each straight from this buffer.
using SharedBody = std::shared_ptr<const MessageBuffer>;

// The receiving end of one client: takes whole encoded message bodies to write to that client in
// order. Post never blocks.
class ClientSink {
 public:
  virtual ~ClientSink() = default;
  virtual void Post(SharedBody body) = 0;
};

// A client as the registry knows it.
struct ClientInfo {
  uint64_t id = 0;          // unique for the server's lifetime, never 0
  uint32_t process_id = 0;  // from the handshake
};

class TargetDebugEvents;
class CoreDumpBackend;

class TargetRegistry {
 public:
  // Sees every notification as it is handed to a client (the packet log). Called with the
  // registry's lock held: it must not call back into the registry.
  using NotificationObserver =
      std::function<void(uint64_t client_id, const CNotification& notification)>;

  explicit TargetRegistry(const Scenario& scenario, NotificationObserver observer = {},
                          DebugBackendFactory debug_backends = MakeDebugBackend);
  // Shuts the debug backends down first: their threads post into the registry.
  ~TargetRegistry();
  TargetRegistry(const TargetRegistry&) = delete;
  TargetRegistry& operator=(const TargetRegistry&) = delete;

  void AddClient(const ClientInfo& client, ClientSink* sink);
  // Drops the client's subscriptions and releases the targets it holds connected.
  void RemoveClient(uint64_t client_id);
  // Ends every simulated wait at once and shuts the debug backends down (the server is stopping).
  void Shutdown();

  // The debug backend of `handle`, for a call made without the registry's lock: fails for an
  // unknown handle, a kit that does not answer and a kit that is not powered on, and, when the
  // call would run, stop or change process `changes` (0: a process yet to be), also when another
  // client holds that process's lock.
  Status DebugBackendOf(uint32_t handle, std::shared_ptr<DebugBackend>& backend,
                        uint64_t client_id = 0, std::optional<uint32_t> changes = {}) const;

  // The process locks of a target (process 0: all its processes), taken, released, transferred
  // and reclaimed on behalf of `client_id`; each change goes to the target's ProcessLock group.
  enum class LockAction { kRequest, kRelease, kTransfer, kReclaim };
  // `requester` names the client in the events (kRequest); `to_process_id` is the OS process
  // id of the client that receives the lock (kTransfer).
  Status ChangeProcessLock(uint64_t client_id, uint32_t handle, uint32_t pid, LockAction action,
                           std::u16string_view requester, uint32_t to_process_id);
  // Whether the lock is held, and by whom.
  Status ProcessLockOwner(uint32_t handle, uint32_t pid, bool& locked, std::u16string& owner) const;

  Status AddTarget(std::u16string_view type, std::u16string_view host, uint32_t& handle);
  Status DeleteTarget(uint32_t handle);
  U32List TargetList() const;
  U32List TargetsByHost(std::u16string_view host) const;
  U32List TargetsByName(std::u16string_view name) const;
  // The core dump target added for `pseudo_host` (ADD_TARGET of type CoreDump).
  Status CoreDumpTargetByHost(std::u16string_view pseudo_host, uint32_t& handle) const;
  // Opens the core file at `path` as the process of core dump target `handle` (the file is read
  // without the registry's lock).
  Status LoadCoreDump(uint32_t handle, const std::u16string& path);
  Status GetDefaultTarget(uint32_t& handle) const;
  Status SetDefaultTarget(uint32_t handle);
  Status TargetInfo(uint32_t handle, NameValueList& info) const;
  Status TargetSummary(std::u16string_view host, NameValueList& summary) const;
  Status HostName(uint32_t handle, std::u16string& host) const;
  Status TargetName(uint32_t handle, bool cached, std::u16string& name) const;
  Status SetTargetName(uint32_t handle, std::u16string_view name);
  Status MacAddress(uint32_t handle, Bytes& mac) const;
  Status SetCachedMacAddress(uint32_t handle, const Bytes& mac);
  Status SetCachedSubnetMask(uint32_t handle, uint32_t mask);
  Status CachedSubnetMask(uint32_t handle, uint32_t& mask) const;
  Status SdkVersion(uint32_t handle, std::array<uint32_t, 4>& version) const;
  Status BusyCount(uint32_t handle, uint32_t& count) const;
  Status ConnectionInfo(uint32_t handle, std::u16string& info) const;
  WStringList Discover() const;
  // Searches the address ranges of `rules` for reachable kits, reporting what each rule found
  // to the Server group's subscribers as TARGET_FIND_PROGRESS, the last one at 100 percent.
  Status FindTargets(const FindRuleList& rules);
  // The same search for Mirador kits (`mirador: true`), reported as MIRADOR_TARGET_FIND_PROGRESS
  // with each kit's host name, name and MAC address.
  Status FindMiradorTargets(const FindRuleList& rules);

  Status PowerStatusOf(uint32_t handle, PowerStatus& status) const;
  // Power changes, each started on behalf of `client_id` (who may cancel it).
  Status PowerOn(uint64_t client_id, uint32_t handle);
  Status PowerOff(uint64_t client_id, uint32_t handle);
  Status Reboot(uint64_t client_id, uint32_t handle);
  Status ForcePowerOff(uint64_t client_id, uint32_t handle);
  // Cancels the change under way on `handle` if `client_id` started it; success either way.
  Status CancelCurrentCommand(uint64_t client_id, uint32_t handle);
  // Cancels every change under way that `client_id` started.
  void CancelClientCommands(uint64_t client_id);

  Status Connect(uint64_t client_id, uint32_t handle);
  Status Disconnect(uint64_t client_id, uint32_t handle);
  Status ForceDisconnect(uint64_t client_id, uint32_t handle);
  // Takes the connection as soon as nobody holds it: at once when it is free, else once its
  // holder releases it (RELEASE_CONNECTION, TARGET_DISCONNECT or going away). The wait ends
  // early when the client cancels its commands, the target is deleted or the server stops.
  Status RequestConnection(uint64_t client_id, uint32_t handle);
  Status ConnectionStateOf(uint64_t client_id, uint32_t handle, ConnectionState& state) const;

  // A notification-only connection: it holds nothing, so any number of clients may have one
  // beside the client that holds the target connected.
  Status ConnectForNotifications(uint64_t client_id, uint32_t handle);
  Status DisconnectFromNotifications(uint64_t client_id, uint32_t handle);

  // Protocol claims on a target: at most one client holds a protocol, until it clears the claim
  // or goes away.
  Status SetProtocolInUse(uint64_t client_id, uint32_t handle, uint32_t protocol);
  Status ClearProtocolInUse(uint64_t client_id, uint32_t handle, uint32_t protocol);
  Status QueryProtocolInUse(uint32_t handle, uint32_t protocol, bool& in_use) const;
  // The protocols `client_id` holds on the target, ascending.
  Status ProtocolsHeldBy(uint64_t client_id, uint32_t handle, U32List& protocols) const;
  Status ProtocolInfo(uint64_t client_id, uint32_t handle, uint32_t protocol,
                      NameValueList& info) const;
  // The generic protocol endpoints of `handle`, for channel calls made without the registry's
  // lock (target_endpoints.cpp): fails for an unknown handle, a kit that does not answer and one
  // that is not powered on.
  Status EndpointsOf(uint32_t handle, std::shared_ptr<TargetProtocols>& endpoints) const;

  // Subscriptions: one entry per (client, group, key). The Server group's key is always
  // 0xFFFFFFFF; the other groups' keys are target handles.
  Status Subscribe(uint64_t client_id, EventGroup group, uint32_t key);
  void Unsubscribe(uint64_t client_id, EventGroup group, uint32_t key);
  size_t SubscriptionCount(uint64_t client_id) const;

  // The process ids of the clients connected now, in the order they connected.
  U32List ClientProcessIds() const;

  // Console (target_console.cpp). Output goes into the target's cache and to its ConsoleOutput
  // subscribers, paced on each client's acknowledgements (console_pacing.h, docs/server.md).
  Status ConsoleCacheSize(uint32_t handle, uint32_t& size) const;
  Status SetConsoleCacheSize(uint32_t handle, uint32_t size);
  Status ConsoleCacheUpperBound(uint32_t handle, uint32_t& upper_bound) const;
  Status FetchConsoleCache(uint32_t handle, uint32_t start, uint32_t& next,
                           ConsoleCacheRecordList& records) const;
  Status ClearConsoleCache(uint32_t handle);
  // Console input for the target; with `echo`, the text also comes back as its console output.
  Status SendConsoleInput(uint32_t handle, const ConsoleCacheRecord& input, bool echo);
  // One acknowledged CONSOLE_OUTPUT piece of `client_id`.
  void AcknowledgeConsoleOutput(uint64_t client_id);

 private:
  struct Target {
    uint32_t handle = 0;
    std::u16string type;
    Kit kit;  // for a host no scenario names: unreachable, name = host
    std::u16string cached_name;
    uint32_t subnet_mask = 0;
    uint64_t owner = 0;      // client holding the connection, 0 for none
    uint32_t busy = 0;       // power or connection changes under way
    uint64_t changer = 0;    // the client whose change is under way
    bool cancelled = false;  // that change is to end early
    bool deleted = false;
    std::set<uint64_t> notification_clients;
    std::map<uint32_t, uint64_t> protocols;  // protocol -> the client holding it
    ConsoleCache console;
    std::shared_ptr<DebugBackend> debug;
    std::shared_ptr<CoreDumpBackend> core;  // the same backend, for a core dump target
    std::shared_ptr<TargetDebugEvents> debug_events;
    std::shared_ptr<TargetProtocols> endpoints;  // generic protocol endpoints and channels
  };
  // A client's console output in flight, and what waits behind it.
  struct ConsoleFlow {
    uint32_t in_flight = 0;  // sent, not yet acknowledged
    // Encoded, and as the notification the packet log records when it is sent (null without a
    // packet log).
    std::deque<std::pair<SharedBody, std::shared_ptr<const CNotification>>> waiting;
    uint64_t dropped = 0;         // since the client last heard about drops
    uint32_t dropped_from = 0;    // the target the first of them came from
    bool refill_at_half = false;  // the window filled: wait until half of it is acknowledged
  };
  using TargetPtr = std::shared_ptr<Target>;
  using Lock = std::unique_lock<std::shared_mutex>;

  TargetPtr Find(uint32_t handle) const;
  // The handles of the targets whose kit's `field` matches `value` as host names match.
  U32List TargetsWhere(std::u16string Kit::*field, std::u16string_view value) const;
  // The target for `handle` or a failure naming the handle.
  Status Lookup(uint32_t handle, TargetPtr& target) const;
  // A failure for a kit that does not answer, or for a core dump asked to do a kit's work.
  Status Reachable(const Target& target) const;
  uint32_t NewHandle();
  TargetPtr Register(std::u16string_view type, const Kit& kit);

  void Notify(EventGroup group, uint32_t key, const CNotification& notification);
  // The message body that carries `notification`; null if it cannot be encoded.
  static SharedBody Encode(const CNotification& notification);
  // Console output of `target`: into its cache (which takes its text) and, paced, to its
  // subscribers. Returns the text of the piece the cache dropped for it, if any, whose block the
  // caller may reuse.
  std::u16string EmitConsoleOutput(Target& target, CConsoleOutputNotification&& output);
  friend class TargetDebugEvents;
  // What a target's debug backend reports: console output to its console, the rest to its
  // Debug group. Dropped once the target is deleted or the server stops.
  void PostDebug(uint32_t handle, const CNotification& notification);
  // Gives a newly registered target its debug backend (the lock held: the factory only builds).
  void AttachDebugBackend(Target& target);
  // RemoveClient's work under the lock: everything but the client's channels.
  void ForgetClient(uint64_t client_id);
  // Gives a newly registered target its protocol endpoints, which announce their availability
  // changes through PostProtocolStatus.
  void AttachEndpoints(Target& target);
  void PostProtocolStatus(uint32_t handle, uint32_t protocol, bool available);
  // Closes the channels of `client_id` (0: all) on `targets`; called without the lock, since a
  // script endpoint's thread announces into the registry while it ends.
  static void CloseChannels(const std::vector<TargetPtr>& targets, uint64_t client_id);
  // Shuts the backends of `targets` down; called without the lock, since a backend's threads
  // post into the registry while they end.
  static void ShutDownDebugBackends(const std::vector<TargetPtr>& targets);
  // Hands a client's waiting console output on while it has room; then the drop notice.
  void DrainConsoleFlow(uint64_t client_id, ConsoleFlow& flow);
  // Sends `count` sendings of one step of a kit's script (ScriptRunner's thread).
  void SendScripted(const std::u16string& host, const ScriptStep& step, uint32_t first,
                    uint32_t count);
  // Starts the scripts of `host` that wait for a first subscription to `group`.
  void StartScriptsOnSubscription(EventGroup group, uint32_t key);
  void NotifyPower(const Target& target, PowerOperation operation, PowerProgress progress);
  // Makes `client_id` the target's connected client and announces it.
  Status HandOver(Target& target, uint64_t client_id);
  // Waits `ms` of simulated time without the lock, or until `target` is deleted, its change
  // cancelled or, with `until_owned`, the target taken by a client. False when the wait ended
  // early or the server stops.
  bool Sleep(Lock& lock, uint32_t ms, const Target& target, bool until_owned = false);
  // Runs a timed power change: `from` states it may start in, `to` where it ends.
  Status PowerChange(uint64_t client_id, uint32_t handle, PowerOperation operation, PowerStatus to);
  // The process id a client gave in its handshake, 0 once it has gone.
  uint32_t ProcessIdOf(uint64_t client_id) const;
  // The ProcessLock group's notifications for what the lock table changed.
  void NotifyLockChanges(const ProcessLocks::Changes& changes);

  mutable std::shared_mutex mutex_;
  std::condition_variable_any changed_cv_;  // shutdown, deletion, a connection taken
  bool shutting_down_ = false;
  const Scenario scenario_;
  const NotificationObserver observer_;
  const DebugBackendFactory debug_backends_;
  std::map<uint32_t, TargetPtr> targets_;
  uint32_t next_handle_ = 1;
  uint32_t default_handle_ = 0xFFFFFFFF;
  std::map<uint64_t, std::pair<ClientInfo, ClientSink*>> clients_;
  // (group, key) -> subscribed clients
  std::map<std::pair<EventGroup, uint32_t>, std::set<uint64_t>> subscriptions_;
  // Bumped when a client cancels its commands or goes away; its waits compare it.
  std::map<uint64_t, uint64_t> cancel_generation_;
  std::map<uint64_t, ConsoleFlow> console_flows_;
  ProcessLocks locks_;
  // The first-subscription scripts that have started (each runs once per server run).
  std::set<const KitScript*> scripts_started_;
  // The blocks of texts the consoles let go, for the next scripted notifications; used only by
  // SendScripted, so only on the script thread.
  TextBlocks script_texts_;
  // Last: its thread calls SendScripted, so it stops before anything above goes.
  ScriptRunner scripts_;
};

}  // namespace qv::server
