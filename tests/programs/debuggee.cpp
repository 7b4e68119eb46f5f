// A small program for the local target's tests to debug, built without position independence so
// that the addresses `nm` gives are where its symbols are at run time. What it does comes from
// its first argument:
//   spin            calls vekx_tick for ever, a millisecond apart
//   exit CODE       prints a line to stdout and to stderr, then exits with CODE
//   raise SIGNAL    raises SIGNAL (a number) at itself
//   threads COUNT   starts COUNT threads that each call vekx_tick for ever
//   echo            prints "got " and the line it reads from stdin
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {
volatile long vekx_counter = 0;
volatile long vekx_marker = 0x5eed;

__attribute__((noinline)) void vekx_tick() {
  vekx_counter = vekx_counter + 1;
}
}

static void* Worker(void*) {
  for (;;) {
    vekx_tick();
    usleep(1000);
  }
  return nullptr;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "spin";
  const int value = argc > 2 ? atoi(argv[2]) : 0;
  if (strcmp(mode, "exit") == 0) {
    printf("out from debuggee\n");
    fprintf(stderr, "err from debuggee\n");
    return value;
  }
  if (strcmp(mode, "raise") == 0) raise(value);
  if (strcmp(mode, "echo") == 0) {
    char line[256] = {};
    if (fgets(line, sizeof line, stdin) != nullptr) printf("got %s", line);
    return 0;
  }
  if (strcmp(mode, "threads") == 0) {
    for (int i = 0; i < value; ++i) {
      pthread_t thread;
      pthread_create(&thread, nullptr, Worker, nullptr);
    }
  }
  Worker(nullptr);
}
