#pragma once
// How long the tool lets the server take to answer (--timeout). The library waits for an answer
// without a time-out, as host tools expect of it; a person at a terminal does not want a frozen
// server to freeze the tool, so a watcher ends the whole process when a command has waited on
// the library for longer than the limit.
//
// The clock runs while a command talks to the library; it stops while a command waits for
// events or for the user instead (`console --follow`, `events`, `run`, `resume --wait`, `find`,
// `core`), and starts afresh when that wait ends.

#include <string>

namespace vesta_ctrl {

// Starts the watcher, once per run. `text` is the limit as the user gave it, repeated in the
// message; `json` also prints the failure as a JSON document on standard output.
void StartAnswerDeadline(double seconds, const std::string& text, bool json);

// A command that makes call after call for as long as it runs (`proto`) says when an answer came:
// the clock then times the next call alone.
void AnswerArrived();

// Stops the clock for as long as it lives; nested pauses are allowed.
class AnswerDeadlinePause {
 public:
  AnswerDeadlinePause();
  ~AnswerDeadlinePause();
  AnswerDeadlinePause(const AnswerDeadlinePause&) = delete;
  AnswerDeadlinePause& operator=(const AnswerDeadlinePause&) = delete;
};

// A positive number of seconds, at most a day ("30", "0.5"); UsageError naming `option`
// otherwise.
double ParseSeconds(const std::string& option, const std::string& text);

}  // namespace vesta_ctrl
