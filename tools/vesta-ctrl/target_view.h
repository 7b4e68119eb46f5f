#pragma once
// What the tool shows about a target: its handle and the state the server keeps for it. Each
// state is asked for separately, and a kit that does not answer (an unreachable host) still
// has a handle and a host name, so each field either holds a value or says why it has none.

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

template <class T>
struct Field {
  std::optional<T> value;
  std::string error;  // The library's description when `value` is empty.
};

struct TargetView {
  std::uint32_t handle = 0;
  Field<std::string> name;
  Field<std::string> host;
  Field<ePowerStatus> power;
  Field<eConnectionState> connection;
  Field<bool> is_default;
};

// Reads every field of `target`; only a failure to read its handle throws (Failure).
TargetView ReadTargetView(ITarget& target);

// "on", "off", "standby", ... as the JSON output names them.
std::string PowerName(ePowerStatus status);
// "available", "connected", "in use" (JSON: "in-use").
std::string ConnectionName(eConnectionState state);

// {"handle", "name", "host", "power", "connection", "default"}; an unreadable field is null.
nlohmann::json ToJson(const TargetView& view);

// The field as a table cell: its text, or "-" when it could not be read.
std::string Cell(const Field<std::string>& field);
std::string Cell(const Field<ePowerStatus>& field);
std::string Cell(const Field<eConnectionState>& field);
std::string Cell(const Field<bool>& field);

// How a person names the target in a sentence: "devkit-alpha (handle 1)".
std::string Describe(const TargetView& view);

}  // namespace vesta_ctrl
