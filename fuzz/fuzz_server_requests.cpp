// Feeds arbitrary requests to the server's request path: the dispatcher with every handler the
// server registers, over a registry of quick kits. The input is a series of records
//   u16 operation pick, u8 target pick, u8 body length, body bytes
// each sent as one request body with its header. Every request must be answered with its type
// number and sequence, with a response head that decodes, and nothing may crash or leak.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "requests/catalogue.h"
#include "server/core/packet_log.h"
#include "server/core/request_dispatcher.h"
#include "server/handlers/handlers.h"
#include "server/targets/target_registry.h"
#include "serverlink/frame.h"
#include "serverlink/wire_fields.h"

namespace {

class DiscardingSink : public qv::server::ClientSink {
 public:
  void Post(qv::server::SharedBody) override {}
};

qv::server::Scenario QuickKits() {
  qv::server::Scenario scenario;
  for (const char16_t* host : {u"a", u"b", u"c"}) {
    qv::server::Kit kit;
    kit.host = host;
    kit.name = host;
    kit.timings = {0, 0, 0};
    scenario.kits.push_back(kit);
  }
  scenario.kits[0].power = qv::PowerStatus::kOn;
  // A process from the start (pid 100, threads 1000 and 1001), so that the debug operations
  // reach the virtual process backend's memory, registers and breakpoints.
  qv::server::ProgramImage image;
  image.path = u"/a";
  image.running = true;
  image.regions.push_back({0x1000, std::vector<uint8_t>(256, 0x90)});
  image.threads.resize(2);
  image.threads[0].path = {{0x1000, {}}, {0x1004, {}}};
  image.threads[0].loop = true;
  scenario.kits[0].images = {image};
  scenario.kits[0].is_default = true;
  // A generic protocol endpoint whose calls never wait, so that the channel operations reach it.
  qv::server::ProtocolEndpoint source;
  source.number = 1;
  source.kind = qv::server::EndpointKind::kSource;
  source.length = 4096;
  source.pattern = {0x5a};
  scenario.kits[0].protocols = {source};
  scenario.kits[2].reachable = false;
  return scenario;
}

// The rest of a body, served from memory as a pipe would serve it.
class SpanSource final : public qv::MessageBuffer::Source {
 public:
  SpanSource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  size_t Unread() const override { return size_; }
  bool ReadInto(uint8_t* dest, size_t size) override {
    if (size > size_) return false;
    std::memcpy(dest, data_, size);
    data_ += size;
    size_ -= size;
    return true;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qv::server::TargetRegistry registry(QuickKits());
  qv::server::PacketLog packet_log;
  qv::server::RequestDispatcher dispatcher;
  qv::server::RegisterHandlers(dispatcher, registry, packet_log);
  DiscardingSink sink;
  registry.AddClient({1, 100}, &sink);
  registry.Subscribe(1, qv::EventGroup::Server, qv::kNoTarget);
  // Echoed console input then takes the paced path to this client.
  registry.Subscribe(1, qv::EventGroup::ConsoleOutput, 1);

  const auto entries = qv::RequestFactory().Entries();
  uint32_t sequence = 0;
  while (size >= 4) {
    uint16_t pick = 0;
    std::memcpy(&pick, data, sizeof pick);
    uint32_t type_number = entries[pick % entries.size()].type_number;
    // The packet log and core dumps write files: they stay out of the fuzz.
    if (type_number == qv::CStartPacketLoggingRequest::kTypeNumber ||
        type_number == qv::CTriggerCoredumpRequest::kTypeNumber) {
      type_number = qv::CGetServerVersionRequest::kTypeNumber;
    }
    const uint32_t target =
        data[2] < 8 ? data[2] : (data[2] == 8 ? qv::kNoTarget : data[2] * 7919u);
    const size_t length = std::min<size_t>(data[3], size - 4);
    qv::MessageBuffer request;
    qv::WriteRequestHeader(request, type_number, target, ++sequence);
    request.Write(data + 4, length);
    data += 4 + length;
    size -= 4 + length;

    // As the server takes a body apart while it arrives: part in the buffer, the rest from the
    // pipe.
    const size_t present = std::min<size_t>(request.Size(), 12 + length / 2);
    qv::MessageBuffer body(request.Data(), present);
    SpanSource rest(request.Data() + present, request.Size() - present);
    body.SetSource(&rest);
    auto call = dispatcher.Decode(1, 100, body);
    if (!call.has_value()) std::abort();
    const auto answer = dispatcher.Run(*call);
    if (!answer.has_value()) std::abort();
    // Only a call that goes unanswered when it succeeds may come back without an answer.
    if (answer->Size() == 0) {
      if (!call->unanswered) std::abort();
      continue;
    }
    qv::MessageBuffer in(answer->Data(), answer->Size());
    uint32_t kind = 1;
    uint32_t answered_type = 0;
    qv::CResponse head;
    if (!qv::ReadField(in, kind) || !qv::ReadField(in, answered_type) || kind != 0 ||
        answered_type != type_number || !head.qv::CResponse::Deserialize(in) ||
        head.Sequence != sequence) {
      std::abort();
    }
  }
  registry.RemoveClient(1);
  return 0;
}
