// A target's connection and power: each command is one call on the target object, answered by
// the server when the change has ended, followed by the state it left.
#include <memory>
#include <string>

#include "commands.h"
#include "failure.h"
#include "output.h"
#include "target_resolution.h"
#include "target_view.h"

namespace vesta_ctrl {
namespace {

using Action = HRESULT (STDMETHODCALLTYPE ITarget::*)();

void Run(Context& context, const std::string& spec, Action action, const char* done) {
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), spec);
  Check(((*target.Get()).*action)());
  const TargetView view = ReadTargetView(*target.Get());
  if (context.json) {
    PrintJson(context.out, {{"target", ToJson(view)}});
  } else {
    context.out << done << ' ' << Describe(view) << ": power " << Cell(view.power)
                << ", connection " << Cell(view.connection) << ".\n";
  }
}

void PowerStatus(Context& context, const std::string& spec) {
  vekx::ComPtr<ITarget> target = ResolveTarget(context.session.Api(), spec);
  ePowerStatus status = POWER_STATUS_UNKNOWN;
  Check(target->get_PowerStatus(&status));
  ULONG handle = 0;
  Check(target->get_Handle(&handle));
  if (context.json) {
    PrintJson(context.out, {{"handle", handle}, {"power", PowerName(status)}});
  } else {
    context.out << PowerName(status) << '\n';
  }
}

// A subcommand taking one TARGET that runs `action`.
void AddTargetAction(CLI::App& parent, Context& context, const char* name, const char* help,
                     Action action, const char* done) {
  auto spec = std::make_shared<std::string>();
  CLI::App* command = parent.add_subcommand(name, help);
  command->add_option("TARGET", *spec, "Handle, host name or name")->required();
  command->callback([&context, spec, action, done] { Run(context, *spec, action, done); });
}

}  // namespace

void AddPowerCommands(CLI::App& app, Context& context) {
  AddTargetAction(app, context, "connect",
                  "Connect to a target (the connection ends when vesta-ctrl does)",
                  &ITarget::Connect, "Connected to");
  AddTargetAction(app, context, "disconnect", "Give up the connection to a target",
                  &ITarget::Disconnect, "Disconnected from");
  AddTargetAction(app, context, "reboot", "Reboot a target; returns once it is back on",
                  &ITarget::Reboot, "Rebooted");

  CLI::App* power = app.add_subcommand("power", "Switch a target on or off, or show its power");
  power->require_subcommand(1);
  AddTargetAction(*power, context, "on", "Power a target on; returns once it is on",
                  &ITarget::PowerOn, "Powered on");
  AddTargetAction(*power, context, "off", "Power a target off; returns once it is off",
                  &ITarget::PowerOff, "Powered off");
  auto spec = std::make_shared<std::string>();
  CLI::App* status = power->add_subcommand("status", "A target's power state");
  status->add_option("TARGET", *spec, "Handle, host name or name")->required();
  status->callback([&context, spec] { PowerStatus(context, *spec); });
}

}  // namespace vesta_ctrl
