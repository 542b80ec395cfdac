#include "host/output/byte_printer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "host/failure.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "host/output/write_all.h"

namespace pmhost {
namespace {

constexpr std::string_view kDigits = "0123456789abcdef";

class RawPrinter final : public BytePrinter {
 public:
  bool Write(std::uint64_t, std::span<const std::uint8_t> bytes) override {
    if (m_error == 0)
      m_error = WriteAll(STDOUT_FILENO, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    return m_error == 0;
  }
  void Finish() override {
    if (m_error != 0 && m_error != EPIPE)
      throw Failure(std::string("cannot write the output: ") + std::strerror(m_error));
  }

 private:
  int m_error = 0;
};

// Lines of so many bytes; the last of a piece is kept until the next one fills it.
class LinePrinter : public BytePrinter {
 public:
  explicit LinePrinter(std::size_t width) : m_width(width) {}

  bool Write(std::uint64_t address, std::span<const std::uint8_t> bytes) override {
    bool written = true;
    while (!bytes.empty() && written) {
      if (m_count == 0) m_address = address;
      const std::size_t taken = std::min(bytes.size(), m_width - m_count);
      std::copy_n(bytes.begin(), taken, m_bytes + m_count);
      m_count += taken;
      address += taken;
      bytes = bytes.subspan(taken);
      if (m_count == m_width) written = Flush();
    }
    return written;
  }
  void Finish() override {
    Flush();
    m_writer.Finish();
  }

 protected:
  static constexpr std::size_t kWidest = 4096;

  virtual std::string_view Line(std::uint64_t address, std::span<const std::uint8_t> bytes) = 0;

 private:
  bool Flush() {
    if (m_count == 0) return true;
    const bool written = m_writer.WriteLine(Line(m_address, {m_bytes, m_count}));
    m_count = 0;
    return written;
  }

  const std::size_t m_width;
  LineWriter m_writer{STDOUT_FILENO};
  std::uint64_t m_address = 0;
  std::uint8_t m_bytes[kWidest] = {};
  std::size_t m_count = 0;
};

void AppendHexadecimal(std::string& out, std::uint8_t byte) {
  out += kDigits[byte >> 4U];
  out += kDigits[byte & 0xfU];
}

// "00007f0012345000  48 65 6c 6c 6f 2c 20 77  6f 72 6c 64 21 0a 00 00  |Hello, world!...|"
class HexDump final : public LinePrinter {
 public:
  HexDump() : LinePrinter(kPerLine) {}

 protected:
  std::string_view Line(std::uint64_t address, std::span<const std::uint8_t> bytes) override {
    m_line.clear();
    for (int shift = 56; shift >= 0; shift -= 8)
      AppendHexadecimal(m_line, static_cast<std::uint8_t>(address >> shift));
    m_line += ' ';
    for (std::size_t i = 0; i < kPerLine; ++i) {
      m_line += i == kPerLine / 2 ? "  " : " ";
      if (i < bytes.size())
        AppendHexadecimal(m_line, bytes[i]);
      else
        m_line += "  ";
    }
    m_line += "  |";
    for (const std::uint8_t byte : bytes)
      m_line += byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '.';
    m_line += '|';
    return m_line;
  }

 private:
  static constexpr std::size_t kPerLine = 16;

  std::string m_line;
};

class JsonBytes final : public LinePrinter {
 public:
  JsonBytes() : LinePrinter(kWidest) {}

 protected:
  std::string_view Line(std::uint64_t address, std::span<const std::uint8_t> bytes) override {
    m_digits.clear();
    for (const std::uint8_t byte : bytes) AppendHexadecimal(m_digits, byte);
    m_json.Begin();
    m_json.LongNumber("address", address);
    m_json.Text("bytes", std::string_view(m_digits));
    return m_json.End();
  }

 private:
  JsonLine m_json;
  std::string m_digits;
};

}  // namespace

std::unique_ptr<BytePrinter> MakeRawPrinter() {
  return std::make_unique<RawPrinter>();
}

std::unique_ptr<BytePrinter> MakeHexDump() {
  return std::make_unique<HexDump>();
}

std::unique_ptr<BytePrinter> MakeJsonBytes() {
  return std::make_unique<JsonBytes>();
}

}  // namespace pmhost
