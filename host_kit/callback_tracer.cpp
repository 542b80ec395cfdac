#include "host_kit/callback_tracer.h"

#include <cstdlib>
#include <utility>

namespace host_kit {
namespace {

// What stands in memory before the text of a record.
struct Header {
  std::uint64_t level;  // 64 bits: the text behind it stays aligned
};

Header* HeaderOf(void* text) {
  return static_cast<Header*>(text) - 1;
}

}  // namespace

CallbackTracer::CallbackTracer(std::uint32_t ceiling, Callback callback)
    : m_ceiling(ceiling), m_callback(std::move(callback)) {}

zym::result_t CallbackTracer::GetRecord(std::uint32_t level, void** buffer, std::uint64_t size) {
  const bool opening = *buffer == nullptr;
  if (opening && level > m_ceiling) return zym::ZYM_E_NOT_MATCHED;
  auto* const header =
      static_cast<Header*>(std::realloc(opening ? nullptr : HeaderOf(*buffer), sizeof(Header) + size));
  if (header == nullptr) return zym::ZYM_E_OUT_OF_MEMORY;
  if (opening) header->level = level;
  *buffer = header + 1;
  return zym::ZYM_OK;
}

void CallbackTracer::CommitRecord(void* buffer, std::uint64_t length) noexcept {
  Header* const header = HeaderOf(buffer);
  m_callback(static_cast<std::uint32_t>(header->level), {static_cast<const char*>(buffer), length});
  std::free(header);
}

}  // namespace host_kit
