// proto TARGET N: a generic protocol channel between standard input and standard output, like
// netcat; --status asks whether the endpoint is there, --list names the target's protocols.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

#include "answer_deadline.h"
#include "commands.h"
#include "debug_values.h"
#include "failure.h"
#include "name_value_texts.h"
#include "output.h"
#include "target_resolution.h"
#include "vekxapi/bstr.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/variant.h"

namespace vesta_ctrl {
namespace {

// The pieces copied each way: one Write's most.
constexpr size_t kPiece = 64 * 1024;

struct ProtocolOptions {
  std::string spec;
  std::optional<uint32_t> number;
  double linger_seconds = 1.0;
  bool status = false;
  bool list = false;
};

// The channel's sink: the tool does not act on availability, but the open needs one.
class AvailabilitySink : public vekx::EventSink<IEventGenericProtocol> {};

// Opens the channel with the sink advised; the caller closes and unadvises.
vekx::ComPtr<IGenericProtocol> OpenChannel(ITarget8& target, uint32_t number,
                                           IEventGenericProtocol* sink) {
  vekx::ComPtr<IGenericProtocol> channel;
  Check(target.OpenGenericProtocol(number, sink, channel.Put()));
  return channel;
}

// Whether a failed call means the endpoint has closed the channel: the normal end of a copy.
bool ClosedByEndpoint(HRESULT hr) {
  return hr == static_cast<HRESULT>(KXAPI_COMMS_ERR_ULP_DISCONNECT);
}

void Status(Context& context, ITarget8& target, uint32_t number) {
  auto sink = vekx::MakeSink<AvailabilitySink>();
  vekx::ComPtr<IGenericProtocol> channel;
  const HRESULT opened = target.OpenGenericProtocol(number, sink.Get(), channel.Put());
  // An endpoint that is down or absent refuses the open: that is the answer, with its reason.
  std::string reason;
  VARIANT_BOOL available = VARIANT_FALSE;
  if (opened == static_cast<HRESULT>(KXAPI_COMMS_ERR_NOPROTOCOL)) {
    try {
      Check(opened);
    } catch (const Failure& failure) {
      reason = failure.what();
    }
  } else {
    Check(opened);
    const HRESULT asked = channel->get_Status(&available);
    channel->Close();
    Check(asked);
  }
  target.UnadviseGenericProtocolEvents(sink.Get());
  if (context.json) {
    nlohmann::json document = {{"protocol", number}, {"available", available == VARIANT_TRUE}};
    if (!reason.empty()) document["reason"] = reason;
    PrintJson(context.out, document);
    return;
  }
  context.out << "protocol " << number << ": "
              << (available == VARIANT_TRUE ? "available" : "not available");
  if (!reason.empty()) context.out << " (" << reason << ")";
  context.out << '\n';
}

void List(Context& context, ITarget8& target) {
  vekx::Variant info;
  Check(target.get_TargetInfo(info.Put()));
  std::istringstream numbers(ValueOf(ReadNameValueTexts(info.Get()), "Protocols"));
  Table table({"PROTOCOL", "ENDPOINT", "AVAILABLE", "OPEN"});
  nlohmann::json list = nlohmann::json::array();
  for (uint32_t number = 0; numbers >> number;) {
    vekx::Variant pairs;
    Check(target.GetProtocolInfo(number, pairs.Put()));
    const NameValueTexts texts = ReadNameValueTexts(pairs.Get());
    const std::string endpoint = ValueOf(texts, "Endpoint");
    const bool available = ValueOf(texts, "Available") == "Yes";
    const std::string open = ValueOf(texts, "OpenChannels");
    table.AddRow({std::to_string(number), endpoint, available ? "yes" : "no", open});
    list.push_back({{"protocol", number},
                    {"endpoint", endpoint},
                    {"available", available},
                    {"open_channels", std::stoul(open.empty() ? "0" : open)}});
  }
  if (context.json) {
    PrintJson(context.out, {{"protocols", list}});
  } else {
    table.Print(context.out);
  }
}

// Standard input to the channel, on a thread of its own so that what comes back is printed
// while input waits. Each piece goes out whole: a short write (the endpoint's flow control) is
// followed by the rest. Standard input may never end (a terminal), so the thread is left to the
// process's end, and what it shares lives as long as the thread does.
class InputPump {
 public:
  explicit InputPump(vekx::ComPtr<IGenericProtocol> channel) : state_(std::make_shared<State>()) {
    std::thread([state = state_, channel = std::move(channel)] {
      Run(*state, *channel.Get());
    }).detach();
  }

  bool Done() const { return state_->done; }
  // The failure that stopped the input, S_OK when it simply ended.
  HRESULT Result() const { return state_->result; }

 private:
  struct State {
    std::atomic<bool> done{false};
    std::atomic<HRESULT> result{S_OK};
  };

  static void Run(State& state, IGenericProtocol& channel) {
    std::vector<uint8_t> piece(kPiece);
    for (size_t got = 0; (got = std::fread(piece.data(), 1, kPiece, stdin)) != 0;) {
      const vekx::Variant bytes = ByteArray({piece.begin(), piece.begin() + got});
      for (LONG offset = 0; offset < static_cast<LONG>(got);) {
        ULONG written = 0;
        if (HRESULT hr = channel.Write(bytes.Get(), offset, &written); FAILED(hr)) {
          state.result = hr;
          state.done = true;
          return;
        }
        offset += static_cast<LONG>(written);
      }
    }
    state.done = true;
  }

  std::shared_ptr<State> state_;
};

void Copy(ITarget8& target, uint32_t number, double linger_seconds) {
#ifdef _WIN32
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
#endif
  auto sink = vekx::MakeSink<AvailabilitySink>();
  vekx::ComPtr<IGenericProtocol> channel = OpenChannel(target, number, sink.Get());
  const auto linger = std::chrono::duration<double>(linger_seconds);
  const InputPump input(channel);
  using Clock = std::chrono::steady_clock;
  Clock::time_point last_data = Clock::now();
  std::optional<Clock::time_point> input_end;
  HRESULT failed = S_OK;
  for (;;) {
    vekx::Variant data;
    if (HRESULT hr = channel->Read(static_cast<ULONG>(kPiece), data.Put()); FAILED(hr)) {
      if (!ClosedByEndpoint(hr)) failed = hr;
      break;
    }
    AnswerArrived();
    const std::vector<uint8_t> bytes = BytesOf(data.Get());
    const Clock::time_point now = Clock::now();
    if (!bytes.empty()) {
      std::fwrite(bytes.data(), 1, bytes.size(), stdout);
      std::fflush(stdout);
      last_data = now;
    }
    if (!input.Done()) continue;
    if (FAILED(input.Result())) {
      if (!ClosedByEndpoint(input.Result())) failed = input.Result();
      break;
    }
    // The quiet that ends the copy counts from the end of input or the last byte, the later.
    if (!input_end) input_end = now;
    if (bytes.empty() && now - std::max(last_data, *input_end) >= linger) break;
  }
  channel->Close();
  target.UnadviseGenericProtocolEvents(sink.Get());
  Check(failed);
}

void Protocol(Context& context, const ProtocolOptions& options) {
  if (!options.list && !options.number) throw UsageError("proto needs a protocol number N");
  if (context.json && !options.list && !options.status) {
    throw UsageError("proto copies raw bytes; --json goes with --status or --list");
  }
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), options.spec);
  vekx::ComPtr<ITarget8> later;
  Check(target.QueryInto(IID_ITarget8, later));
  if (options.list) {
    List(context, *later.Get());
  } else if (options.status) {
    Status(context, *later.Get(), *options.number);
  } else {
    Copy(*later.Get(), *options.number, options.linger_seconds);
  }
}

}  // namespace

void AddProtocolCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<ProtocolOptions>();
  CLI::App* proto = app.add_subcommand(
      "proto",
      "Copy standard input to a target's generic protocol N and what it sends to standard "
      "output; --status tells whether N is available, --list names the target's protocols");
  proto->add_option("TARGET", options->spec, "Handle, host name or name")->required();
  proto->add_option("N", options->number, "The protocol number");
  CLI::Option* linger = proto->add_option(
      "--linger", options->linger_seconds,
      "After standard input ends, stop once nothing has come for S seconds (default 1)");
  linger->check(CLI::NonNegativeNumber);
  CLI::Option* status =
      proto->add_flag("--status", options->status, "Whether protocol N is available");
  CLI::Option* list = proto->add_flag("--list", options->list, "The target's protocols");
  status->excludes(list)->excludes(linger);
  list->excludes(linger);
  proto->callback([&context, options] { Protocol(context, *options); });
}

}  // namespace vesta_ctrl
