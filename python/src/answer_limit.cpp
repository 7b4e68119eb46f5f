#include "answer_limit.h"

#include <atomic>
#include <cmath>
#include <string>
#include <vector>

#include "errors.h"
#include "vekxapi/library.h"

namespace vekx_python {
namespace {

std::atomic<unsigned long> g_default_ms{0};

// Per thread: the open `with` blocks' limits, innermost last, and what the library last got.
thread_local std::vector<unsigned long> t_scopes;
thread_local unsigned long t_applied_ms = 0;

unsigned long Milliseconds(const std::optional<double>& seconds) {
  if (!seconds) return 0;
  if (!std::isfinite(*seconds) || *seconds <= 0 || *seconds > 86400) {
    Raise(Kind::kInvalidArgument, E_INVALIDARG,
          "a time-out is a positive number of seconds, at most a day, or None");
  }
  return std::max(1ul, static_cast<unsigned long>(std::lround(*seconds * 1000)));
}

}  // namespace

void SetDefaultTimeout(const std::optional<double>& seconds) {
  g_default_ms = Milliseconds(seconds);
}

std::optional<double> DefaultTimeout() {
  const unsigned long ms = g_default_ms;
  if (ms == 0) return std::nullopt;
  return static_cast<double>(ms) / 1000.0;
}

void ApplyAnswerLimit() noexcept {
  const unsigned long wanted = t_scopes.empty() ? g_default_ms.load() : t_scopes.back();
  if (wanted == t_applied_ms) return;
  VekxSetAnswerTimeout(wanted);
  t_applied_ms = wanted;
}

TimeoutScope::TimeoutScope(const std::optional<double>& seconds)
    : milliseconds_(Milliseconds(seconds)) {}

void TimeoutScope::Enter() {
  t_scopes.push_back(milliseconds_);
}

void TimeoutScope::Exit() {
  if (!t_scopes.empty()) t_scopes.pop_back();
}

}  // namespace vekx_python
