// The texts of one process's images, equal ones once.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <unordered_map>

#include "zym/containers.h"

namespace qor::process_manager::process_cache {

// Each text is found by its content, and goes with its last use. No thread safety of its own.
class SharedTexts {
 public:
  using Text = std::shared_ptr<const zym::types::string16_t>;
  // One use of a text, which must not outlive the SharedTexts. The text itself may: answers share it.
  using Use = std::shared_ptr<const Text>;

  SharedTexts() = default;
  SharedTexts(const SharedTexts&) = delete;
  SharedTexts& operator=(const SharedTexts&) = delete;

  // Copies a text that is new.
  Use Share(const zym::types::string16_t& text);
  // Keeps a text that is new. Null for null.
  Use Share(const Text& text);

  // Of different texts.
  [[nodiscard]] std::size_t Size() const noexcept { return m_uses.size(); }

 private:
  Use Find(std::u16string_view text) const;
  Use Add(Text text);

  std::unordered_map<std::u16string_view, std::weak_ptr<const Text>> m_uses;  // keys lie in the texts
};

}  // namespace qor::process_manager::process_cache
