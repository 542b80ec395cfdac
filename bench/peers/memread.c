// The ways to read another process's memory, and the speed of memory itself: medians in GB/s.
//
//   memread PID ADDRESS LENGTH REPETITIONS     ADDRESS in hexadecimal
//
// Each way reads LENGTH bytes in chunks of several sizes, into one chunk over and over and into a buffer for all.
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

enum way { MEM_PREAD, VM_READV, LOCAL_MEMCPY, WAYS };
static const char* const names[] = {"pread of /proc/<pid>/mem", "process_vm_readv", "memcpy, the same process"};
static const size_t chunks[] = {4096, 40960, 1 << 20, 16 << 20, 0};  // 0: all at once

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec * 1e-9;
}

static int compare(const void* a, const void* b) {
  const double x = *(const double*)a, y = *(const double*)b;
  return x < y ? -1 : x > y;
}

static void fail(const char* what) {
  perror(what);
  exit(1);
}

static void read_part(enum way way, pid_t pid, int fd, uintptr_t from, const char* local, char* to, size_t size) {
  const struct iovec here = {.iov_base = to, .iov_len = size};
  const struct iovec there = {.iov_base = (void*)from, .iov_len = size};
  if (way == MEM_PREAD && pread(fd, to, size, (off_t)from) != (ssize_t)size) fail("pread");
  if (way == VM_READV && process_vm_readv(pid, &here, 1, &there, 1, 0) != (ssize_t)size) fail("process_vm_readv");
  if (way == LOCAL_MEMCPY) memcpy(to, local, size);
}

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: memread PID ADDRESS LENGTH REPETITIONS\n");
    return 2;
  }
  const pid_t pid = atoi(argv[1]);
  const uintptr_t address = strtoull(argv[2], NULL, 16);
  const size_t length = strtoull(argv[3], NULL, 0);
  const int repetitions = atoi(argv[4]);
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/mem", (int)pid);
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(path);
  char* const buffer = malloc(length);
  char* const local = malloc(length);
  double* const times = calloc((size_t)repetitions + 1, sizeof(double));
  if (length == 0 || repetitions < 1 || buffer == NULL || local == NULL || times == NULL) fail("memory");
  memset(buffer, 1, length);
  memset(local, 2, length);

  for (int way = 0; way < WAYS; ++way)
    for (size_t c = 0; c < sizeof(chunks) / sizeof(chunks[0]); ++c)
      for (int whole = 0; whole < 2; ++whole) {
        const size_t chunk = chunks[c] != 0 && chunks[c] < length ? chunks[c] : length;
        for (int i = 0; i < repetitions; ++i) {
          const double begin = now();
          for (size_t done = 0; done < length; done += chunk) {
            const size_t size = chunk < length - done ? chunk : length - done;
            read_part(way, pid, fd, address + done, local + done, whole ? buffer + done : buffer, size);
          }
          times[i] = now() - begin;
        }
        qsort(times, (size_t)repetitions, sizeof(double), compare);
        printf("%-26s chunks of %10zu into %-10s %6.2f GB/s (%.2f to %.2f)\n", names[way], chunk,
               whole ? "a whole" : "one chunk", (double)length / times[repetitions / 2] / 1e9,
               (double)length / times[repetitions - 1] / 1e9, (double)length / times[0] / 1e9);
      }
  return 0;
}
