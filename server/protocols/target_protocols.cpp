#include "server/protocols/target_protocols.h"

#include "platform/wide_string.h"

namespace qv::server {
namespace {

std::u16string ProtocolText(uint32_t protocol) {
  return u"protocol " + platform::Utf8ToUtf16(std::to_string(protocol));
}

}  // namespace

TargetProtocols::TargetProtocols(std::u16string host, std::vector<ProtocolEndpoint> endpoints,
                                 Announce announce)
    : host_(std::move(host)), announce_(std::move(announce)) {
  for (ProtocolEndpoint& endpoint : endpoints) {
    const uint32_t number = endpoint.number;
    endpoints_[number] = {std::move(endpoint), true};
  }
}

TargetProtocols::~TargetProtocols() {
  Shutdown();
}

Status TargetProtocols::Open(uint64_t client_id, uint32_t protocol) {
  ProtocolEndpoint description;
  {
    std::lock_guard lock(mutex_);
    const auto endpoint = endpoints_.find(protocol);
    if (shut_down_ || endpoint == endpoints_.end()) {
      return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL,
                          u"'" + host_ + u"' has no " + ProtocolText(protocol));
    }
    if (!endpoint->second.available) {
      return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL,
                          ProtocolText(protocol) + u" of '" + host_ + u"' is down");
    }
    if (channels_.count({client_id, protocol}) != 0) {
      return Status::Fail(KXAPI_COMMS_ERR_ALREADY_CONNECTED,
                          ProtocolText(protocol) + u" is open already; close it first");
    }
    description = endpoint->second.description;
  }
  // Without the lock: a forward connects, and a script may announce a change at once.
  std::unique_ptr<ProtocolChannel> made;
  const Status status = OpenChannel(
      description, [this, protocol](bool available) { SetAvailable(protocol, available); }, made);
  if (!status.ok()) return status;
  Channel channel(std::move(made));
  std::unique_lock lock(mutex_);
  if (shut_down_ || !channels_.try_emplace({client_id, protocol}, channel).second) {
    lock.unlock();
    channel->Close();
    return Status::Fail(KXAPI_COMMS_ERR_ALREADY_CONNECTED,
                        ProtocolText(protocol) + u" was opened meanwhile; close it first");
  }
  return Status::Ok();
}

Status TargetProtocols::ChannelOf(uint64_t client_id, uint32_t protocol, Channel& channel,
                                  bool* available) const {
  std::lock_guard lock(mutex_);
  if (available != nullptr) {
    const auto endpoint = endpoints_.find(protocol);
    *available = endpoint != endpoints_.end() && endpoint->second.available;
  }
  const auto it = channels_.find({client_id, protocol});
  if (it == channels_.end()) {
    return Status::Fail(KXAPI_COMMS_ERR_INVALID_PROTOCOL,
                        ProtocolText(protocol) + u" is not open on this connection; open it first");
  }
  channel = it->second;
  return Status::Ok();
}

Status TargetProtocols::Close(uint64_t client_id, uint32_t protocol) {
  Channel channel;
  {
    std::lock_guard lock(mutex_);
    const auto it = channels_.find({client_id, protocol});
    if (it == channels_.end()) {
      return Status::Fail(KXAPI_COMMS_ERR_INVALID_PROTOCOL,
                          ProtocolText(protocol) + u" is not open on this connection");
    }
    channel = std::move(it->second);
    channels_.erase(it);
  }
  channel->Close();
  return Status::Ok();
}

Status TargetProtocols::Write(uint64_t client_id, uint32_t protocol, const Bytes& data,
                              uint32_t& written) {
  Channel channel;
  bool available = false;
  if (Status status = ChannelOf(client_id, protocol, channel, &available); !status.ok())
    return status;
  // While a script has its endpoint down nothing goes in; reading what came before still works.
  if (!available) {
    return Status::Fail(KXAPI_COMMS_ERR_NOPROTOCOL,
                        ProtocolText(protocol) + u" of '" + host_ + u"' is down");
  }
  return channel->Write(data, written);
}

Status TargetProtocols::Read(uint64_t client_id, uint32_t protocol, uint32_t size, Bytes& data) {
  Channel channel;
  if (Status status = ChannelOf(client_id, protocol, channel); !status.ok()) return status;
  return channel->Read(size, data);
}

Status TargetProtocols::StatusOf(uint64_t client_id, uint32_t protocol, uint32_t& status) const {
  std::lock_guard lock(mutex_);
  const auto endpoint = endpoints_.find(protocol);
  const bool available = endpoint != endpoints_.end() && endpoint->second.available;
  const auto channel = channels_.find({client_id, protocol});
  status = available && (channel == channels_.end() || channel->second->IsOpen()) ? 1 : 0;
  return Status::Ok();
}

std::vector<TargetProtocols::Summary> TargetProtocols::List() const {
  std::lock_guard lock(mutex_);
  std::vector<Summary> list;
  for (const auto& [number, endpoint] : endpoints_) {
    Summary summary{number, endpoint.description.kind, endpoint.available, 0};
    for (const auto& [key, channel] : channels_)
      summary.open_channels += key.second == number ? 1 : 0;
    list.push_back(summary);
  }
  return list;
}

void TargetProtocols::SetAvailable(uint32_t protocol, bool available) {
  {
    std::lock_guard lock(mutex_);
    const auto endpoint = endpoints_.find(protocol);
    if (shut_down_ || endpoint == endpoints_.end() || endpoint->second.available == available) {
      return;
    }
    endpoint->second.available = available;
  }
  if (announce_) announce_(protocol, available);
}

void TargetProtocols::CloseAll(std::vector<Channel>& channels) {
  for (const Channel& channel : channels)
    channel->Close();
  channels.clear();  // a script's thread is joined here, with no lock held
}

void TargetProtocols::CloseClient(uint64_t client_id) {
  std::vector<Channel> closing;
  {
    std::lock_guard lock(mutex_);
    for (auto it = channels_.begin(); it != channels_.end();) {
      if (it->first.first != client_id) {
        ++it;
        continue;
      }
      closing.push_back(std::move(it->second));
      it = channels_.erase(it);
    }
  }
  CloseAll(closing);
}

void TargetProtocols::Shutdown() {
  std::vector<Channel> closing;
  {
    std::lock_guard lock(mutex_);
    shut_down_ = true;
    for (auto& [key, channel] : channels_)
      closing.push_back(std::move(channel));
    channels_.clear();
  }
  CloseAll(closing);
}

}  // namespace qv::server
