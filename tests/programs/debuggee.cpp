// A small program for the local target's tests to debug, built without position independence so
// that the addresses `nm` gives are where its symbols are at run time. What it does comes from
// its first argument:
//   spin            calls vekx_tick for ever, a millisecond apart
//   exit CODE       prints a line to stdout and to stderr, then exits with CODE
//   raise SIGNAL    raises SIGNAL (a number) at itself
//   threads COUNT   starts COUNT threads that each call vekx_tick for ever
//   echo            prints "got " and the line it reads from stdin, read by vekx_read, whose
//                   system call instruction is at vekx_read_syscall
//   fork, vfork     a child made so calls vekx_tick and exits with 3; the parent waits for it,
//                   calls vekx_tick and exits with the child's exit code (99 when a signal ended
//                   it)
//   dlopen PATH     opens the library PATH, calls vekx_tick, closes it, calls vekx_tick, exits
//                   with 0
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" {
volatile long vekx_counter = 0;
volatile long vekx_marker = 0x5eed;

__attribute__((noinline)) void vekx_tick() {
  vekx_counter = vekx_counter + 1;
}

// read(2) made here, so that a breakpoint can sit on the instruction that blocks.
long vekx_read(long fd, char* buffer, long size);
asm(".pushsection .text\n.globl vekx_read\nvekx_read: xor %eax, %eax\n"
    ".globl vekx_read_syscall\nvekx_read_syscall: syscall\nret\n.popsection\n");
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
    if (vekx_read(0, line, sizeof line - 1) > 0) printf("got %s", line);
    return 0;
  }
  if (strcmp(mode, "fork") == 0 || strcmp(mode, "vfork") == 0) {
    const pid_t child = strcmp(mode, "fork") == 0 ? fork() : vfork();
    if (child == 0) {
      vekx_tick();
      _exit(3);
    }
    int status = 0;
    waitpid(child, &status, 0);
    vekx_tick();
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
  }
  if (strcmp(mode, "dlopen") == 0 && argc > 2) {
    void* library = dlopen(argv[2], RTLD_NOW);
    vekx_tick();
    if (library != nullptr) dlclose(library);
    vekx_tick();
    return library != nullptr ? 0 : 1;
  }
  if (strcmp(mode, "threads") == 0) {
    for (int i = 0; i < value; ++i) {
      pthread_t thread;
      pthread_create(&thread, nullptr, Worker, nullptr);
    }
  }
  Worker(nullptr);
}
