#pragma once
// The generic protocol endpoints of one target and the channels its clients have open to them.
// Each client has at most one channel per protocol number; its requests name the channel by that
// number. An endpoint is available unless a script took it down; opening one that is down fails,
// and a change of availability goes to the target's GenericProtocol subscribers.
//
// Locks: mutex_ guards the tables only. Channel calls (which wait) run on a copy of the channel's
// shared pointer without it, and availability changes are announced without it, so the registry
// lock that announcing takes is never held while a channel is closed here: the registry hands this
// object out and calls CloseClient and Shutdown only with its own lock released.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "server/core/status.h"
#include "server/kits/protocol_endpoints.h"
#include "server/protocols/protocol_channel.h"

namespace qv::server {

class TargetProtocols {
 public:
  // Called with each availability change: the protocol number and whether it is now available.
  using Announce = std::function<void(uint32_t protocol, bool available)>;

  TargetProtocols(std::u16string host, std::vector<ProtocolEndpoint> endpoints, Announce announce);
  ~TargetProtocols();
  TargetProtocols(const TargetProtocols&) = delete;
  TargetProtocols& operator=(const TargetProtocols&) = delete;

  Status Open(uint64_t client_id, uint32_t protocol);
  Status Close(uint64_t client_id, uint32_t protocol);
  Status Write(uint64_t client_id, uint32_t protocol, const Bytes& data, uint32_t& written);
  Status Read(uint64_t client_id, uint32_t protocol, uint32_t size, Bytes& data);
  // 1 while the client's channel is open and its endpoint available, else 0; for a client with
  // no channel to it, whether the endpoint is available (0 for a number the target lacks).
  Status StatusOf(uint64_t client_id, uint32_t protocol, uint32_t& status) const;

  struct Summary {
    uint32_t number = 0;
    EndpointKind kind = EndpointKind::kEcho;
    bool available = false;
    size_t open_channels = 0;
  };
  std::vector<Summary> List() const;

  // Closes the channels of a client that went away.
  void CloseClient(uint64_t client_id);
  // Closes every channel; no availability change is announced afterwards.
  void Shutdown();

 private:
  using Channel = std::shared_ptr<ProtocolChannel>;
  struct Endpoint {
    ProtocolEndpoint description;
    bool available = true;
  };

  // The client's channel to `protocol`, or a failure saying it has none; with `available`, also
  // whether the endpoint is up.
  Status ChannelOf(uint64_t client_id, uint32_t protocol, Channel& channel,
                   bool* available = nullptr) const;
  void SetAvailable(uint32_t protocol, bool available);
  static void CloseAll(std::vector<Channel>& channels);

  const std::u16string host_;
  const Announce announce_;
  mutable std::mutex mutex_;
  std::map<uint32_t, Endpoint> endpoints_;                     // guarded by mutex_
  std::map<std::pair<uint64_t, uint32_t>, Channel> channels_;  // guarded by mutex_
  bool shut_down_ = false;                                     // guarded by mutex_
};

}  // namespace qv::server
