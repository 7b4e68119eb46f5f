// A program for the GDB bridge's tests and benchmark, built with symbols and no optimisation.
// What it does comes from its first argument:
//   count N      calls gdb_hit N times, stores 42 in gdb_value, prints "done", exits with 3
//   loop TAG     adds to gdb_counter for ever (TAG lets a test find it in the process list)
//   threads N    starts N threads that wait, then calls gdb_threads_ready and waits too
//   memory MIB   fills a buffer of MIB MiB, then calls gdb_memory_ready
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {
volatile long gdb_counter = 0;
volatile int gdb_value = 7;
static pthread_barrier_t gdb_started;

__attribute__((noinline)) void gdb_hit(int i) {
  gdb_counter = gdb_counter + i;
}

__attribute__((noinline)) void gdb_store(int v) {
  gdb_value = v;
}

__attribute__((noinline)) void gdb_threads_ready(void) {
  gdb_counter = -1;
}

__attribute__((noinline)) void gdb_memory_ready(unsigned char* buffer, size_t size) {
  gdb_counter = static_cast<long>(buffer[size - 1]);
}
}

static void* gdb_worker(void* unused) {
  (void)unused;
  pthread_barrier_wait(&gdb_started);
  for (;;)
    pause();
  return nullptr;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "count";
  const long value = argc > 2 ? atol(argv[2]) : 1;
  if (strcmp(mode, "loop") == 0) {
    for (;;) {
      gdb_counter = gdb_counter + 1;
    }
  }
  if (strcmp(mode, "threads") == 0) {
    pthread_barrier_init(&gdb_started, nullptr, static_cast<unsigned>(value) + 1);
    for (long i = 0; i < value; ++i) {
      pthread_t thread;
      pthread_create(&thread, nullptr, gdb_worker, nullptr);
    }
    pthread_barrier_wait(&gdb_started);
    gdb_threads_ready();
    for (;;)
      pause();
  }
  if (strcmp(mode, "memory") == 0) {
    const size_t size = static_cast<size_t>(value) << 20;
    unsigned char* buffer = static_cast<unsigned char*>(malloc(size));
    for (size_t i = 0; i < size; ++i)
      buffer[i] = static_cast<unsigned char>(i * 7);
    gdb_memory_ready(buffer, size);
    free(buffer);
    return 0;
  }
  for (long i = 0; i < value; ++i) {
    gdb_hit(static_cast<int>(i));
  }
  gdb_store(42);
  printf("done %ld\n", gdb_counter);
  return 3;
}
