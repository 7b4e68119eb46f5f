#pragma once
// How long the calls a thread makes wait for the server's answer. By default a call waits as long
// as the server takes, as host tools expect; a host that must not hang on a frozen server (a test
// script, a binding with its own time-outs) sets a limit for its thread, and a call that reaches
// it returns KXAPI_TIMEOUT. Its answer, if it comes later, is dropped; the connection stays up.

#include <chrono>

namespace qv {

// The calling thread's limit; zero means none.
std::chrono::milliseconds ThisThreadsAnswerLimit() noexcept;
// Sets it and returns the previous one.
std::chrono::milliseconds SetThisThreadsAnswerLimit(std::chrono::milliseconds limit) noexcept;

}  // namespace qv
