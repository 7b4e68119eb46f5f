#include "serverlink/answer_limit.h"

#include <utility>

namespace qv {

namespace {
thread_local std::chrono::milliseconds t_answer_limit{0};
}  // namespace

std::chrono::milliseconds ThisThreadsAnswerLimit() noexcept {
  return t_answer_limit;
}

std::chrono::milliseconds SetThisThreadsAnswerLimit(std::chrono::milliseconds limit) noexcept {
  return std::exchange(t_answer_limit, limit);
}

}  // namespace qv
