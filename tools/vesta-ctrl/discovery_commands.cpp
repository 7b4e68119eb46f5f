// Learning of kits: the server's discovery, and searches of address ranges.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "address_range.h"
#include "answer_deadline.h"
#include "commands.h"
#include "failure.h"
#include "interruption.h"
#include "output.h"
#include "platform/wide_string.h"
#include "target_resolution.h"
#include "target_view.h"
#include "vekxapi/event_sink.h"
#include "vekxapi/variant.h"

namespace vesta_ctrl {
namespace {

void Discover(Context& context) {
  vekx::Variant list;
  Check(context.session.Api().DiscoverTargets(list.Put()));
  std::vector<vekx::Variant> elements;
  Check(vekx::ArrayElements(list.Get(), elements));
  std::vector<std::string> addresses;
  for (const vekx::Variant& element : elements) {
    if (element.Type() != VT_BSTR) Check(DISP_E_TYPEMISMATCH);
    addresses.push_back(qv::platform::Utf16ToUtf8(qv::platform::BstrView(element.Get().bstrVal)));
  }
  if (context.json) {
    PrintJson(context.out, {{"addresses", addresses}});
    return;
  }
  if (addresses.empty()) {
    context.out << "No kits answered.\n";
    return;
  }
  for (const std::string& address : addresses)
    context.out << address << '\n';
  context.out << "Add one with 'vesta-ctrl add ADDRESS'.\n";
}

// The rules for `ranges` as the VARIANT FindTargets takes: an array of VARIANTs, each holding
// a rule's dispatch pointer.
vekx::Variant RulesFor(IVEKXAPI12& api, const std::vector<AddressRange>& ranges) {
  SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(ranges.size()));
  if (array == nullptr) Check(E_OUTOFMEMORY);
  VARIANT owned;
  VariantInit(&owned);
  owned.vt = VT_ARRAY | VT_VARIANT;
  owned.parray = array;
  vekx::Variant rules = vekx::Variant::Adopt(owned);  // Destroys the array from here on.
  for (LONG index = 0; index < static_cast<LONG>(ranges.size()); ++index) {
    vekx::ComPtr<ITargetFindRule> rule;
    Check(api.AllocTargetFindRule(rule.Put()));
    Check(rule->put_StartAddress(ranges[index].start));
    Check(rule->put_EndAddress(ranges[index].end));
    Check(rule->put_SubnetMask(ranges[index].subnet_mask));
    VARIANT element;
    VariantInit(&element);
    element.vt = VT_DISPATCH;
    element.pdispVal = rule.Get();
    // Copies the VARIANT, taking a reference of its own.
    Check(SafeArrayPutElement(array, &index, &element));
  }
  return rules;
}

std::set<ULONG> Handles(const std::vector<vekx::ComPtr<ITarget>>& targets) {
  std::set<ULONG> handles;
  for (const auto& target : targets) {
    ULONG handle = 0;
    Check(target->get_Handle(&handle));
    handles.insert(handle);
  }
  return handles;
}

// What the search reports through the server's events: progress and the kits found so far.
class FindProgress : public vekx::EventSink<IEventServer2> {
 public:
  explicit FindProgress(bool bar) : bar_(bar) {}

  HRESULT STDMETHODCALLTYPE OnTargetFindProgress(ITargetFindProgressEvent* event) override {
    if (event == nullptr) return E_POINTER;
    try {
      vekx::Variant targets;
      ULONG percentage = 0;
      eErrorCode result{};
      if (HRESULT hr = event->get_Targets(targets.Put()); FAILED(hr)) return hr;
      if (HRESULT hr = event->get_Percentage(&percentage); FAILED(hr)) return hr;
      if (HRESULT hr = event->get_Result(&result); FAILED(hr)) return hr;
      std::vector<vekx::Variant> elements;
      if (HRESULT hr = vekx::ArrayElements(targets.Get(), elements); FAILED(hr)) return hr;
      std::lock_guard lock(mutex_);
      for (const vekx::Variant& element : elements) {
        if (element.Type() != VT_BSTR) continue;
        found_.push_back(qv::platform::Utf16ToUtf8(qv::platform::BstrView(element.Get().bstrVal)));
      }
      percentage_ = percentage;
      if (FAILED(static_cast<HRESULT>(result))) result_ = static_cast<HRESULT>(result);
      ShowProgress();
      return S_OK;
    } catch (...) {
      // Called by the library: nothing may escape (out of memory, say).
      return E_FAIL;
    }
  }

  bool Finished() const {
    std::lock_guard lock(mutex_);
    return percentage_ >= 100;
  }
  // The kits found, each once, in the order they were reported; the first failure reported.
  std::vector<std::string> Found(HRESULT& result) const {
    std::lock_guard lock(mutex_);
    result = result_;
    std::vector<std::string> unique;
    for (const std::string& address : found_) {
      if (std::find(unique.begin(), unique.end(), address) == unique.end()) {
        unique.push_back(address);
      }
    }
    return unique;
  }
  // Ends the progress bar's line.
  void Close() const {
    std::lock_guard lock(mutex_);
    if (bar_ && percentage_ > 0) std::fputs("\n", stderr);
  }

 private:
  void ShowProgress() const {
    const unsigned shown = std::min<ULONG>(percentage_, 100);
    if (!bar_) {
      std::fprintf(stderr, "searching: %u%%, %zu found\n", shown, found_.size());
      return;
    }
    constexpr unsigned kWidth = 30;
    const std::string done(shown * kWidth / 100, '#');
    std::fprintf(stderr, "\r[%-*s] %3u%%, %zu found", static_cast<int>(kWidth), done.c_str(), shown,
                 found_.size());
    std::fflush(stderr);
  }

  const bool bar_;            // stderr is a terminal: redraw one line
  mutable std::mutex mutex_;  // guards what follows: written on the library's thread
  std::vector<std::string> found_;
  ULONG percentage_ = 0;
  HRESULT result_ = S_OK;
};

void Find(Context& context, const std::vector<std::string>& texts, double wait_seconds) {
  std::vector<AddressRange> ranges;
  for (const std::string& text : texts) {
    const auto range = ParseAddressRange(text);
    if (!range) {
      throw UsageError("RANGE must read like 10.1.0.0-10.1.0.255, 10.1.0.0/24 or 10.1.0.7, not '" +
                       text + "'");
    }
    ranges.push_back(*range);
  }
  IVEKXAPI12& api = context.session.Api();
  const std::set<ULONG> before = Handles(ListTargets(api));
  auto progress = vekx::MakeSink<FindProgress>(StandardErrorIsTerminal());
  IEventServer* sink = static_cast<IEventServer*>(progress.Get());
  Check(api.AdviseServerEvents(sink));
  const HRESULT started = api.FindTargets(RulesFor(api, ranges).Get());
  bool finished = false;
  if (SUCCEEDED(started)) {
    const AnswerDeadlinePause waiting_for_events;
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(static_cast<long long>(wait_seconds * 1000));
    while (!(finished = progress->Finished()) && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (!finished) api.CancelFindTargets();
  }
  api.UnadviseServerEvents(sink);
  progress->Close();
  Check(started);
  HRESULT result = S_OK;
  const std::vector<std::string> found = progress->Found(result);
  Check(result);

  std::vector<TargetView> joined;
  for (const auto& target : ListTargets(api)) {
    ULONG handle = 0;
    Check(target->get_Handle(&handle));
    if (before.count(handle) == 0) joined.push_back(ReadTargetView(*target.Get()));
  }
  if (!finished) {
    std::fprintf(stderr, "vesta-ctrl: the search had not ended after %g s; cancelled it\n",
                 wait_seconds);
  }
  if (context.json) {
    nlohmann::json list = nlohmann::json::array();
    for (const TargetView& view : joined)
      list.push_back(ToJson(view));
    PrintJson(context.out,
              {{"searched", texts}, {"found", found}, {"finished", finished}, {"joined", list}});
    return;
  }
  if (found.empty()) {
    context.out << "No kits found.\n";
  } else {
    for (const std::string& address : found)
      context.out << address << '\n';
    context.out << "Add one with 'vesta-ctrl add ADDRESS'.\n";
  }
  if (joined.empty()) return;
  context.out << "Targets that joined the list meanwhile:\n";
  Table table({"HANDLE", "NAME", "HOST", "POWER"});
  for (const TargetView& view : joined)
    table.AddRow({std::to_string(view.handle), Cell(view.name), Cell(view.host), Cell(view.power)});
  table.Print(context.out);
}

}  // namespace

void AddDiscoveryCommands(CLI::App& app, Context& context) {
  app.add_subcommand("discover", "Ask the server which kits answer on the network")
      ->callback([&context] { Discover(context); });

  auto ranges = std::make_shared<std::vector<std::string>>();
  auto wait_seconds = std::make_shared<double>(30.0);
  CLI::App* find = app.add_subcommand(
      "find",
      "Search IPv4 address ranges for kits and list the addresses of those found, with the "
      "search's progress on standard error");
  find->add_option("RANGE", *ranges, "10.1.0.0-10.1.0.255, 10.1.0.0/24 or one address")->required();
  find->add_option("--wait", *wait_seconds,
                   "Seconds to wait for the search to end before cancelling it (default 30)")
      ->check(CLI::Range(0.0, 600.0));
  find->callback([&context, ranges, wait_seconds] { Find(context, *ranges, *wait_seconds); });
}

}  // namespace vesta_ctrl
