#pragma once
// Starting a host program under ptrace, from the thread that is to trace it: the child asks to be
// traced, stops, and runs the program once the tracer has set its options (clone, exec and exit
// events; killed when its tracer goes). It comes back stopped at its exec, the first instruction
// of the new program. Its standard output and error are pipes to the server; its input is an
// empty pipe the server may write to.

#include <sys/types.h>

#include <string>
#include <vector>

#include "server/core/status.h"

namespace qv::server {

struct LaunchPlan {
  std::string path;               // absolute, or found from `directory`
  std::vector<std::string> args;  // after the program's own name
  std::string directory;          // empty: the server's
};

struct Launched {
  pid_t pid = 0;
  int output = -1;  // read ends of its stdout and stderr, and the write end of its stdin
  int error = -1;
  int input = -1;
};

// The ptrace options every local process is traced with.
long TraceOptions(bool kill_with_tracer);

// Starts `plan`; on failure nothing is left running.
Status LaunchTraced(const LaunchPlan& plan, Launched& launched);

}  // namespace qv::server
