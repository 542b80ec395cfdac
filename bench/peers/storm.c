// A storm of short processes: storm TOTAL WORKERS [PROGRAM]
//
// Each worker thread spawns PROGRAM (/bin/true) and waits for it, one after the other, until TOTAL have run.
// Prints the wall time and the rate.
#define _GNU_SOURCE
#include <pthread.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { kMaxWorkers = 64 };

static const char* program = "/bin/true";
static int runs_per_worker;

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

static void* work(void* unused) {
  char* const arguments[] = {(char*)program, NULL};
  (void)unused;
  for (int i = 0; i < runs_per_worker; ++i) {
    pid_t child;
    int status;
    if (posix_spawn(&child, program, NULL, NULL, arguments, environ) != 0) {
      perror(program);
      exit(1);
    }
    if (waitpid(child, &status, 0) != child || status != 0) {
      fprintf(stderr, "%s ended with status %x\n", program, (unsigned)status);
      exit(1);
    }
  }
  return NULL;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: %s TOTAL WORKERS [PROGRAM]\n", argv[0]);
    return 2;
  }
  const int total = atoi(argv[1]), workers = atoi(argv[2]);
  if (argc > 3) program = argv[3];
  if (total < 1 || workers < 1 || workers > kMaxWorkers) return 2;
  runs_per_worker = total / workers;

  pthread_t threads[kMaxWorkers];
  const double start = now();
  for (int i = 0; i < workers; ++i) pthread_create(&threads[i], NULL, work, NULL);
  for (int i = 0; i < workers; ++i) pthread_join(threads[i], NULL);
  const double elapsed = now() - start;
  printf("processes=%d workers=%d wall_s=%.3f per_s=%.0f\n", runs_per_worker * workers, workers, elapsed,
         runs_per_worker * workers / elapsed);
  return 0;
}
