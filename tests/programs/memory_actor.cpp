// A process whose memory is known: it maps what a test wants to see, tells where that is and what is in it,
// and stays until its standard input ends.
//
//   memory_actor FILE [LARGE DISTANCE]
//
// FILE: of at least two pages; LARGE: bytes of one more mapping, which has its own offset (u64) written at
// each multiple of DISTANCE, and is never touched elsewhere.
//
// One line for each mapping: its name, address and length in hexadecimal, and its bytes as hexadecimal
// digits, or "-" where the actor itself can't tell them. The last line is "ready".
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::uintptr_t kBelowFourGiB = 0x20000000;

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

std::uint8_t* Map(std::size_t size, int protection, int flags, int fd = -1, void* address = nullptr) {
  void* const memory = ::mmap(address, size, protection, flags, fd, 0);
  if (memory == MAP_FAILED) Fail("mmap");
  return static_cast<std::uint8_t*>(memory);
}

std::uint8_t* MapAnonymous(std::size_t size) {
  return Map(size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS);
}

// Differs from page to page, and from mapping to mapping.
void Fill(std::uint8_t* memory, std::size_t size, unsigned seed) {
  for (std::size_t i = 0; i < size; ++i) memory[i] = static_cast<std::uint8_t>(i * 7 + i / kPage * 31 + seed);
}

void Tell(const char* name, const void* address, std::size_t size, const std::uint8_t* bytes) {
  std::printf("%s %zx %zx ", name, reinterpret_cast<std::uintptr_t>(address), size);
  if (bytes == nullptr) std::printf("-");
  for (std::size_t i = 0; bytes != nullptr && i < size; ++i) std::printf("%02x", bytes[i]);
  std::printf("\n");
}

void Protect(std::uint8_t* memory, std::size_t size, int protection) {
  if (::mprotect(memory, size, protection) != 0) Fail("mprotect");
}

void MapData(int file) {
  std::uint8_t* const anonymous = MapAnonymous(2 * kPage);
  Fill(anonymous, 2 * kPage, 1);
  Tell("anonymous", anonymous, 2 * kPage, anonymous);

  std::uint8_t* const low =
      Map(kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1,
          reinterpret_cast<void*>(kBelowFourGiB));
  Fill(low, kPage, 2);
  Tell("low", low, kPage, low);

  std::uint8_t* const backed = Map(2 * kPage, PROT_READ, MAP_PRIVATE, file);
  Tell("file", backed, 2 * kPage, backed);

  std::uint8_t* const shared = Map(kPage, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS);
  Fill(shared, kPage, 3);
  Tell("shared", shared, kPage, shared);

  std::uint8_t* const guarded = MapAnonymous(kPage);
  Fill(guarded, kPage, 4);
  std::uint8_t copy[kPage];
  std::memcpy(copy, guarded, kPage);
  Protect(guarded, kPage, PROT_NONE);
  Tell("guarded", guarded, kPage, copy);

  std::uint8_t* const across = MapAnonymous(2 * kPage);
  Fill(across, 2 * kPage, 5);
  Protect(across + kPage, kPage, PROT_READ);
  Tell("across", across, 2 * kPage, across);
}

void MapCode(int file) {
  // Two mappings of one library, with memory between them.
  std::uint8_t* const room = Map(3 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS);
  for (std::uint8_t* const place : {room, room + 2 * kPage}) {
    Map(kPage, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_FIXED, file, place);
    Tell("library", place, kPage, place);
  }
  std::uint8_t* const code = Map(kPage, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS);
  Tell("anonymous-code", code, kPage, code);
  Tell("write-execute", Map(kPage, PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS), kPage, nullptr);
}

void TellKernelMappings() {
  if (const auto* const vdso = reinterpret_cast<const std::uint8_t*>(::getauxval(AT_SYSINFO_EHDR)))
    Tell("vdso", vdso, kPage, vdso);
  std::FILE* const maps = std::fopen("/proc/self/maps", "re");
  if (maps == nullptr) Fail("/proc/self/maps");
  char line[512];
  while (std::fgets(line, sizeof(line), maps) != nullptr) {
    const bool isVvar = std::strstr(line, "[vvar]") != nullptr;
    if (isVvar) Tell("vvar", reinterpret_cast<void*>(std::strtoull(line, nullptr, 16)), kPage, nullptr);
  }
  std::fclose(maps);
}

void MapLarge(std::size_t size, std::size_t distance) {
  std::uint8_t* const large = Map(size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE);
  for (std::uint64_t offset = 0; offset < size; offset += distance)
    std::memcpy(large + offset, &offset, sizeof(offset));
  Tell("large", large, size, nullptr);
}

// Last: what is mapped later could fill the hole.
void MapEdge() {
  std::uint8_t* const room = MapAnonymous(3 * kPage);
  Fill(room, kPage, 6);
  if (::munmap(room + kPage, kPage) != 0) Fail("munmap");
  Tell("edge", room, kPage, room);
  Tell("unmapped", room + kPage, kPage, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (argc < 2) return 2;
  const int file = ::open(argv[1], O_RDONLY | O_CLOEXEC);
  if (file < 0) Fail(argv[1]);
  MapData(file);
  MapCode(file);
  TellKernelMappings();
  if (argc > 3) MapLarge(std::strtoull(argv[2], nullptr, 0), std::strtoull(argv[3], nullptr, 0));
  MapEdge();
  std::printf("ready\n");
  std::fflush(stdout);
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  return 0;
}
