// The target list: listing, adding, deleting, the default target and a target's information.
#include <algorithm>
#include <cctype>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "name_value_texts.h"
#include "output.h"
#include "target_resolution.h"
#include "target_view.h"
#include "vekxapi/bstr.h"
#include "vekxapi/variant.h"

namespace vesta_ctrl {
namespace {

void PrintTargets(Context& context, const std::vector<TargetView>& views) {
  if (context.json) {
    nlohmann::json list = nlohmann::json::array();
    for (const TargetView& view : views)
      list.push_back(ToJson(view));
    PrintJson(context.out, {{"targets", list}});
    return;
  }
  if (views.empty()) {
    context.out << "No targets. Add one with 'vesta-ctrl add HOST'.\n";
    return;
  }
  Table table({"HANDLE", "NAME", "HOST", "POWER", "CONNECTION", "DEFAULT"});
  for (const TargetView& view : views) {
    table.AddRow({std::to_string(view.handle), Cell(view.name), Cell(view.host), Cell(view.power),
                  Cell(view.connection), view.is_default.value.value_or(false) ? "*" : ""});
  }
  table.Print(context.out);
}

// One target as a person reads it: each field, or why it could not be read.
std::vector<std::pair<std::string, std::string>> Fields(const TargetView& view) {
  auto text = [](const std::string& cell, const std::string& error) {
    return cell != "-" ? cell : "- (" + error + ")";
  };
  return {{"handle", std::to_string(view.handle)},
          {"name", text(Cell(view.name), view.name.error)},
          {"host", text(Cell(view.host), view.host.error)},
          {"power", text(Cell(view.power), view.power.error)},
          {"connection", text(Cell(view.connection), view.connection.error)},
          {"default", text(Cell(view.is_default), view.is_default.error)}};
}

void PrintTarget(Context& context, const TargetView& view) {
  if (context.json) {
    PrintJson(context.out, {{"target", ToJson(view)}});
  } else {
    PrintFields(context.out, Fields(view));
  }
}

void List(Context& context) {
  std::vector<TargetView> views;
  for (const auto& target : ListTargets(context.session.Api()))
    views.push_back(ReadTargetView(*target.Get()));
  PrintTargets(context, views);
}

void Add(Context& context, const std::string& host) {
  if (host.empty()) throw UsageError("HOST must not be empty");
  vekx::ComPtr<ITarget> target;
  Check(context.session.Api().AddTarget(vekx::Bstr::FromUtf8(host).Get(), target.Put()));
  PrintTarget(context, ReadTargetView(*target.Get()));
}

void Delete(Context& context, const std::string& spec) {
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), spec);
  const TargetView view = ReadTargetView(*target.Get());
  Check(target->Delete());
  if (context.json) {
    PrintJson(context.out, {{"deleted", ToJson(view)}});
  } else {
    context.out << "Deleted " << Describe(view) << ".\n";
  }
}

void Default(Context& context, const std::optional<std::string>& spec) {
  IVEKXAPI12& api = context.session.Api();
  if (spec) {
    vekx::ComPtr<ITarget> target = ResolveTarget(api, *spec);
    // The value is not looked at: setting Default always makes this target the default.
    Check(target->put_Default(VARIANT_TRUE));
  }
  vekx::ComPtr<ITarget> current;
  Check(api.get_DefaultTarget(current.Put()));
  const TargetView view = ReadTargetView(*current.Get());
  if (context.json) {
    PrintJson(context.out, {{"default", ToJson(view)}});
  } else {
    context.out << (spec ? "The default target is now " : "The default target is ")
                << Describe(view) << ".\n";
  }
}

// The target's information from the server, as name and value texts, in the server's order.
NameValueTexts ReadInfo(ITarget& target) {
  vekx::Variant info;
  Check(target.get_TargetInfo(info.Put()));
  return ReadNameValueTexts(info.Get());
}

// The server's name of a fact in the tool's words: "SdkVersion" becomes "sdk version", and the
// facts the target list also shows take the list's names.
std::string FactName(const std::string& server_name) {
  static const std::map<std::string, std::string, std::less<>> kListNames = {
      {"HostName", "host"}, {"TargetType", "type"}, {"PowerStatus", "power"}};
  if (const auto found = kListNames.find(server_name); found != kListNames.end())
    return found->second;
  std::string words;
  for (size_t at = 0; at < server_name.size(); ++at) {
    const char c = server_name[at];
    const bool upper = c >= 'A' && c <= 'Z';
    if (upper && at > 0) words += ' ';
    words += upper ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return words;
}

// info's text: each fact once, from the server's information about the target, in the list's
// lower-case words, with the connection (which only the target object tells) after the power.
// A kit that does not answer is "unreachable" rather than off, and not "available".
std::vector<std::pair<std::string, std::string>> InfoFields(
    const TargetView& view, const std::vector<std::pair<std::string, std::string>>& info) {
  bool unreachable = false;
  for (const auto& [name, value] : info)
    unreachable = unreachable || (name == "Reachable" && value == "No");
  std::vector<std::pair<std::string, std::string>> fields;
  for (const auto& [name, value] : info) {
    std::string text = value;
    if (value == "Yes" || value == "No" || name == "PowerStatus") {
      std::transform(text.begin(), text.end(), text.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    }
    if (name == "PowerStatus" && unreachable) text = "unreachable";
    if (name == "MacAddress" && unreachable && value == "00:00:00:00:00:00") text = "unknown";
    fields.emplace_back(FactName(name), text);
    if (name == "PowerStatus") {
      fields.emplace_back("connection", unreachable ? "unreachable" : Cell(view.connection));
    }
  }
  return fields;
}

void Info(Context& context, const std::string& spec) {
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), spec);
  const TargetView view = ReadTargetView(*target.Get());
  const auto info = ReadInfo(*target.Get());
  if (context.json) {
    nlohmann::json pairs = nlohmann::json::array();
    for (const auto& [name, value] : info)
      pairs.push_back({{"name", name}, {"value", value}});
    PrintJson(context.out, {{"target", ToJson(view)}, {"info", pairs}});
    return;
  }
  PrintFields(context.out, InfoFields(view, info));
}

}  // namespace

void AddTargetCommands(CLI::App& app, Context& context) {
  app.add_subcommand("targets", "List the targets the server knows")->callback([&context] {
    List(context);
  });

  auto host = std::make_shared<std::string>();
  CLI::App* add = app.add_subcommand("add", "Add a target by its host name or address");
  add->add_option("HOST", *host, "Host name or IPv4 address of the kit")->required();
  add->callback([&context, host] { Add(context, *host); });

  auto spec = std::make_shared<std::string>();
  CLI::App* remove = app.add_subcommand("delete", "Remove a target from the server's list");
  remove->add_option("TARGET", *spec, "Handle, host name or name")->required();
  remove->callback([&context, spec] { Delete(context, *spec); });

  CLI::App* make_default =
      app.add_subcommand("default", "Show the default target, or make TARGET the default");
  CLI::Option* new_default = make_default->add_option("TARGET", *spec, "Handle, host name or name");
  make_default->callback([&context, spec, new_default] {
    Default(context, new_default->count() > 0 ? std::optional(*spec) : std::nullopt);
  });

  CLI::App* info = app.add_subcommand("info", "A target's state and the server's information");
  info->add_option("TARGET", *spec, "Handle, host name or name")->required();
  info->callback([&context, spec] { Info(context, *spec); });
}

}  // namespace vesta_ctrl
