// Bytes of memory as output.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

namespace pmhost {

// Takes consecutive bytes, piece by piece.
class BytePrinter {
 public:
  virtual ~BytePrinter() = default;

  // False: the reader is gone; what comes is dropped from then on.
  virtual bool Write(std::uint64_t address, std::span<const std::uint8_t> bytes) = 0;
  // Writes what is left. Throws Failure when something was lost, unless it was the reader who went away.
  virtual void Finish() = 0;
};

// To standard output: the bytes as they are; lines of 16, in hexadecimal and as text; or JSON objects of at
// most 4096, `address` (decimal string) and `bytes` (hexadecimal digits).
std::unique_ptr<BytePrinter> MakeRawPrinter();
std::unique_ptr<BytePrinter> MakeHexDump();
std::unique_ptr<BytePrinter> MakeJsonBytes();

}  // namespace pmhost
