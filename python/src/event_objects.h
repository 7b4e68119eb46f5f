#pragma once
// Events as Python values: each event interface's properties, read through its getters in the
// interface's order, as a dict of the property names the library uses ("Operation",
// "Progress"). One overload per event interface, made from the library's table of event
// properties, so that a new event reaches Python without code of its own. Needs the GIL.

#include <pybind11/pybind11.h>

#include "vekxapi/vekxapi.h"

namespace vekx_python {

#define VEKX_EVENT_BEGIN(Camel) pybind11::dict PropertiesOf(I##Camel##Event& event);
#include "vekxapi/event_properties.def"

}  // namespace vekx_python
