#pragma once
// The one routine through which every public method reports a failure: it turns a result code and
// an optional context (usually the server's own text) into a description and sets it as the
// calling thread's error object, where automation clients read it after the call.
//
//   description = text of our table (environment expanded) | the system's text
//                 | "IDispatch error #<code - 0x80040200>" | "Unknown error 0x<CODE>"
//                 + (" " + context, when there is one)

#include <string>
#include <string_view>

#include "platform/automation.h"

namespace qv {

// What ReportError would set for `code` and `context`.
std::u16string DescribeError(HRESULT code, std::u16string_view context);

// Returns `code` unchanged. A failure code (high bit set) first becomes the thread's error
// object; a success code leaves the thread's error object as it was. Never throws: without memory
// for the description the error object is left as it was.
HRESULT ReportError(HRESULT code, std::u16string_view context = {}) noexcept;

// For a method whose subsystem this version of the library does not have: reports E_NOTIMPL
// with a text that names `method` ("ITarget::LoadProcess", say).
HRESULT ReportNotAvailable(std::u16string_view method) noexcept;

}  // namespace qv
