// console TARGET: the target's cached console output, then with --follow its live output, each
// piece once; or with --send, console input.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "interruption.h"
#include "output.h"
#include "target_resolution.h"
#include "vekxapi/bstr.h"
#include "vekxapi/console_piece.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/variant.h"

namespace vesta_ctrl {
namespace {

using Piece = vekx::ConsolePiece;

// Writes pieces as they come: the text itself for people, a JSON line each for scripts.
class PiecePrinter {
 public:
  PiecePrinter(std::ostream& out, bool json, std::optional<uint32_t> port)
      : out_(out), json_(json), port_(port) {}

  void Print(const Piece& piece, uint32_t index) {
    if (port_ && piece.port != *port_) return;
    std::lock_guard lock(mutex_);
    if (json_) {
      PrintJson(out_, {{"index", index},
                       {"port", piece.port},
                       {"category", piece.category},
                       {"process", piece.process_id},
                       {"thread", piece.thread_id},
                       {"timestamp", piece.timestamp},
                       {"text", piece.text}});
    } else {
      out_ << piece.text;
    }
    out_.flush();
  }

 private:
  std::mutex mutex_;  // guards out_: the cache is printed on this thread, live pieces on the
                      // library's
  std::ostream& out_;
  const bool json_;
  const std::optional<uint32_t> port_;
};

// Reads the cache from `start` (or its oldest piece, if that one has gone) to its end, handing
// each piece with its index to `take`. Returns the index the next piece will get.
uint32_t ReadCache(ITarget& target, uint32_t start,
                   const std::function<void(uint32_t, const Piece&)>& take) {
  ULONG next = start;
  for (;;) {
    vekx::Variant records;
    Check(target.CachedConsoleOutput(&next, records.Put()));
    std::vector<vekx::Variant> elements;
    Check(vekx::ArrayElements(records.Get(), elements));
    if (elements.empty()) return next;
    // The pieces of one fetch are consecutive and end just before `next`.
    uint32_t index = next - static_cast<uint32_t>(elements.size());
    for (const vekx::Variant& element : elements) {
      if (element.Type() != VT_DISPATCH || element.Get().pdispVal == nullptr) {
        Check(DISP_E_TYPEMISMATCH);
      }
      vekx::ComPtr<IConsoleOutput> record;
      Check(element.Get().pdispVal->QueryInterface(IID_IConsoleOutput,
                                                   reinterpret_cast<void**>(record.Put())));
      Piece piece;
      Check(vekx::ReadConsolePiece(*record.Get(), piece));
      take(index++, piece);
    }
  }
}

// Live output after the cache. Console output events carry no cache index, but the server puts
// each piece in the cache and queues it to every subscriber in one step, so the pieces a
// subscriber receives are the cached ones from some index S on, without a hole. S lies between
// the cache index read just before subscribing and the one read just after; where those differ,
// the first live piece is found among the cached pieces by its content (port, category, ids,
// timestamp and text). Pieces that arrive meanwhile wait until the cache has been printed.
class LiveOutput : public vekx::EventSink<IEventConsoleOutput> {
 public:
  explicit LiveOutput(PiecePrinter& printer) : printer_(printer) {}

  HRESULT STDMETHODCALLTYPE OnConsoleOutput(IConsoleOutputEvent* event) override {
    if (event == nullptr) return E_POINTER;
    try {
      Piece piece;
      if (HRESULT hr = vekx::ReadConsolePiece(*event, piece); FAILED(hr)) return hr;
      std::lock_guard lock(mutex_);
      if (cache_printed_) {
        Deliver(piece);
      } else {
        held_.push_back(std::move(piece));
      }
      return S_OK;
    } catch (...) {
      // Called by the library: nothing may escape (out of memory, say).
      return E_FAIL;
    }
  }

  // The cache has been printed up to `next`. S is from `earliest` to `latest`; `recent` are the
  // cached pieces from index `recent_first` on, up to `next`.
  void CachePrinted(uint32_t next, uint32_t earliest, uint32_t latest, uint32_t recent_first,
                    std::vector<Piece> recent) {
    std::lock_guard lock(mutex_);
    next_ = next;
    earliest_ = earliest;
    latest_ = latest;
    recent_first_ = recent_first;
    recent_ = std::move(recent);
    cache_printed_ = true;
    for (const Piece& piece : held_)
      Deliver(piece);
    held_.clear();
  }

 private:
  void Deliver(const Piece& piece) {
    if (!first_index_) first_index_ = FirstIndex(piece);
    const uint32_t index = *first_index_ + received_++;
    if (index >= next_) printer_.Print(piece, index);
  }
  uint32_t FirstIndex(const Piece& first) const {
    for (uint32_t index = std::max(earliest_, recent_first_); index <= latest_ && index < next_;
         ++index) {
      const uint32_t at = index - recent_first_;
      if (at < recent_.size() && recent_[at] == first) return index;
    }
    // Not among the cached pieces: it came after them. (Were the server to break its order, a
    // repeat would be printed rather than a piece lost.)
    return next_;
  }

  PiecePrinter& printer_;
  std::mutex mutex_;  // guards everything below: the library's thread against this one
  bool cache_printed_ = false;
  std::vector<Piece> held_;  // arrived while the cache was being printed
  uint32_t next_ = 0;
  uint32_t earliest_ = 0;
  uint32_t latest_ = 0;
  uint32_t recent_first_ = 0;
  std::vector<Piece> recent_;
  std::optional<uint32_t> first_index_;
  uint32_t received_ = 0;
};

struct ConsoleOptions {
  std::string spec;
  bool follow = false;
  uint32_t port = 0;
  bool port_given = false;
  uint32_t since = 0;
  std::string input;
  bool send = false;
  bool echo = false;
};

void Send(Context& context, const ConsoleOptions& options) {
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), options.spec);
  const vekx::Bstr text = vekx::Bstr::FromUtf8(options.input);
  eConsoleOutputPort port{};
  std::memcpy(&port, &options.port, sizeof port);
  // Input for every process on the port, which is what a person typing at a console means.
  const auto process = static_cast<ULONG>(BROADCAST_PID);
  if (options.echo) {
    vekx::ComPtr<ITarget10> later;
    Check(target.QueryInto(IID_ITarget10, later));
    Check(later->SendConsoleInputWithEcho(port, PROCESS_OUTPUT, process, text.Get()));
  } else {
    Check(target->SendConsoleInput(port, PROCESS_OUTPUT, process, text.Get()));
  }
  if (context.json) {
    PrintJson(context.out,
              {{"sent", options.input}, {"port", options.port}, {"echo", options.echo}});
  }
}

void Console(Context& context, const ConsoleOptions& options) {
  if (options.send) {
    Send(context, options);
    return;
  }
  const Interruption interruption;
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), options.spec);
  PiecePrinter printer(context.out, context.json,
                       options.port_given ? std::optional(options.port) : std::nullopt);
  if (!options.follow) {
    ReadCache(*target.Get(), options.since,
              [&](uint32_t index, const Piece& piece) { printer.Print(piece, index); });
    return;
  }
  // Subscribe first, so that nothing falls between the cache and the live output.
  ULONG before = 0;
  Check(target->get_ConsoleCacheIndex(&before));
  auto live = vekx::MakeSink<LiveOutput>(printer);
  Check(target->AdviseConsoleOutputEvents(live.Get()));
  ULONG after = 0;
  Check(target->get_ConsoleCacheIndex(&after));
  std::vector<Piece> recent;
  std::optional<uint32_t> recent_first;
  const uint32_t next = ReadCache(*target.Get(), std::min<uint32_t>(options.since, before),
                                  [&](uint32_t index, const Piece& piece) {
                                    if (index >= options.since) printer.Print(piece, index);
                                    if (index < before) return;
                                    if (!recent_first) recent_first = index;
                                    recent.push_back(piece);
                                  });
  live->CachePrinted(next, before, after, recent_first.value_or(next), std::move(recent));
  interruption.Wait();
  // A failure no longer matters: the tool is ending.
  target->UnadviseConsoleOutputEvents(live.Get());
}

}  // namespace

void AddConsoleCommands(CLI::App& app, Context& context) {
  auto options = std::make_shared<ConsoleOptions>();
  CLI::App* console = app.add_subcommand(
      "console",
      "A target's cached console output; --follow then prints the live output until Ctrl+C; "
      "--send types TEXT on the console instead");
  console->add_option("TARGET", options->spec, "Handle, host name or name")->required();
  CLI::Option* follow =
      console->add_flag("--follow", options->follow, "Then print the live output until Ctrl+C");
  console->add_option("--port", options->port,
                      "Only this port's output (0 standard output, 1 standard error, ...); with "
                      "--send the port to type on (default 0)");
  CLI::Option* since = console->add_option(
      "--since", options->since, "Start at this cache index (default: the oldest piece kept)");
  CLI::Option* send = console->add_option("--send", options->input, "Send TEXT as console input");
  CLI::Option* echo =
      console->add_flag("--echo", options->echo, "With --send: the text comes back as output");
  send->excludes(follow)->excludes(since);
  echo->needs(send);
  console->callback([&context, options, console, send] {
    options->send = send->count() > 0;
    options->port_given = console->get_option("--port")->count() > 0;
    Console(context, *options);
  });
}

}  // namespace vesta_ctrl
