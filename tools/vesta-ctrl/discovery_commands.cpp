// Learning of kits: the server's discovery, and searches of address ranges.
#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "address_range.h"
#include "commands.h"
#include "failure.h"
#include "output.h"
#include "platform/wide_string.h"
#include "target_resolution.h"
#include "target_view.h"
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
  Check(api.FindTargets(RulesFor(api, ranges).Get()));

  // The kits a search finds are reported as events, which this tool does not receive yet: until
  // it does, it watches the target list for the targets that join it meanwhile.
  std::vector<TargetView> joined;
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<long long>(wait_seconds * 1000));
  for (;;) {
    joined.clear();
    for (const auto& target : ListTargets(api)) {
      ULONG handle = 0;
      Check(target->get_Handle(&handle));
      if (before.count(handle) == 0) joined.push_back(ReadTargetView(*target.Get()));
    }
    if (std::chrono::steady_clock::now() >= deadline) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  if (context.json) {
    nlohmann::json list = nlohmann::json::array();
    for (const TargetView& view : joined)
      list.push_back(ToJson(view));
    PrintJson(context.out, {{"searched", texts}, {"joined", list}});
    return;
  }
  context.out << "Searched " << ranges.size() << (ranges.size() == 1 ? " range" : " ranges")
              << ". Kits found are reported as events, which vesta-ctrl does not show yet.\n";
  if (joined.empty()) {
    context.out << "No target joined the list meanwhile.\n";
    return;
  }
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
  auto wait_seconds = std::make_shared<double>(2.0);
  CLI::App* find = app.add_subcommand(
      "find",
      "Search IPv4 address ranges for kits. The kits found are reported as events, which this "
      "version does not receive yet: it starts the search, then watches the target list for "
      "--wait seconds and shows the targets that joined it");
  find->add_option("RANGE", *ranges, "10.1.0.0-10.1.0.255, 10.1.0.0/24 or one address")->required();
  find->add_option("--wait", *wait_seconds, "Seconds to watch the target list (default 2)")
      ->check(CLI::Range(0.0, 600.0));
  find->callback([&context, ranges, wait_seconds] { Find(context, *ranges, *wait_seconds); });
}

}  // namespace vesta_ctrl
