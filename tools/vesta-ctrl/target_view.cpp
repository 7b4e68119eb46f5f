#include "target_view.h"

#include <cstdio>

#include "failure.h"
#include "vekxapi/bstr.h"
#include "vekxapi/state_names.h"
#include "vekxapi/status.h"

namespace vesta_ctrl {
namespace {

template <class T, class Read>
Field<T> ReadField(Read read) {
  Field<T> field;
  T value{};
  if (const HRESULT result = read(value); SUCCEEDED(result)) {
    field.value = std::move(value);
  } else {
    field.error = vekx::Status::Of(result).message();
  }
  return field;
}

Field<std::string> ReadString(ITarget& target, HRESULT (STDMETHODCALLTYPE ITarget::*get)(BSTR*)) {
  return ReadField<std::string>([&](std::string& value) {
    vekx::Bstr text;
    const HRESULT result = (target.*get)(text.Put());
    value = text.Utf8();
    return result;
  });
}

template <class T>
nlohmann::json JsonOf(const Field<T>& field) {
  return field.value ? nlohmann::json(*field.value) : nlohmann::json(nullptr);
}

}  // namespace

TargetView ReadTargetView(ITarget& target) {
  TargetView view;
  ULONG handle = 0;
  Check(target.get_Handle(&handle));
  view.handle = static_cast<std::uint32_t>(handle);
  view.name = ReadString(target, &ITarget::get_Name);
  view.host = ReadString(target, &ITarget::get_HostName);
  view.power =
      ReadField<ePowerStatus>([&](ePowerStatus& value) { return target.get_PowerStatus(&value); });
  view.connection = ReadField<eConnectionState>(
      [&](eConnectionState& value) { return target.get_ConnectionState(&value); });
  view.is_default = ReadField<bool>([&](bool& value) {
    VARIANT_BOOL flag = VARIANT_FALSE;
    const HRESULT result = target.get_Default(&flag);
    value = flag != VARIANT_FALSE;
    return result;
  });
  return view;
}

std::string PowerName(ePowerStatus status) {
  if (const char* name = vekx::PowerStatusName(status)) return name;
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(status));
  return text;
}

std::string ConnectionName(eConnectionState state) {
  if (const char* name = vekx::ConnectionStateName(state)) return name;
  return std::to_string(static_cast<unsigned>(state));
}

nlohmann::json ToJson(const TargetView& view) {
  nlohmann::json power = nullptr;
  if (view.power.value) power = PowerName(*view.power.value);
  nlohmann::json connection = nullptr;
  if (view.connection.value) connection = ConnectionName(*view.connection.value);
  return {{"handle", view.handle},     {"name", JsonOf(view.name)},
          {"host", JsonOf(view.host)}, {"power", power},
          {"connection", connection},  {"default", JsonOf(view.is_default)}};
}

std::string Cell(const Field<std::string>& field) {
  return field.value ? *field.value : "-";
}

std::string Cell(const Field<ePowerStatus>& field) {
  return field.value ? PowerName(*field.value) : "-";
}

std::string Cell(const Field<eConnectionState>& field) {
  return field.value ? ConnectionName(*field.value) : "-";
}

std::string Cell(const Field<bool>& field) {
  if (!field.value) return "-";
  return *field.value ? "yes" : "no";
}

std::string Describe(const TargetView& view) {
  const std::string handle = "handle " + std::to_string(view.handle);
  if (view.host.value) return *view.host.value + " (" + handle + ")";
  return handle;
}

}  // namespace vesta_ctrl
