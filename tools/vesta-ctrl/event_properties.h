#pragma once
// An event's properties as vesta-ctrl prints them, read through the event interface's getters in
// the interface's order: one overload per event interface, made from the library's public table
// of event properties, so a new event is printed without code of its own.

#include <nlohmann/json.hpp>

#include "platform/automation.h"
#include "vekxapi/vekxapi.h"

namespace vesta_ctrl {

// Property name to value, in the interface's order. A getter that fails gives null.
using Properties = nlohmann::ordered_json;

#define VEKX_EVENT_BEGIN(Camel) Properties ReadProperties(I##Camel##Event& event);
#include "vekxapi/event_properties.def"

// A VARIANT as JSON: numbers, text, booleans; arrays element by element; bytes as "3c:65:76";
// anything else (objects, empty) null.
nlohmann::ordered_json VariantValue(const VARIANT& value);

}  // namespace vesta_ctrl
