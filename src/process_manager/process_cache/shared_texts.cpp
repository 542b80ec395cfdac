#include "process_manager/process_cache/shared_texts.h"

#include <utility>

namespace qor::process_manager::process_cache {

SharedTexts::Use SharedTexts::Share(const zym::types::string16_t& text) {
  Use known = Find(text);
  return known ? known : Add(std::make_shared<const zym::types::string16_t>(text));
}

SharedTexts::Use SharedTexts::Share(const Text& text) {
  if (!text) return nullptr;
  Use known = Find(*text);
  return known ? known : Add(text);
}

SharedTexts::Use SharedTexts::Find(std::u16string_view text) const {
  const auto found = m_uses.find(text);
  return found != m_uses.end() ? found->second.lock() : nullptr;
}

SharedTexts::Use SharedTexts::Add(Text text) {
  const auto forget = [this](const Text* last) {
    m_uses.erase(**last);
    delete last;
  };
  Use use(new const Text(std::move(text)), forget);
  m_uses.emplace(**use, use);
  return use;
}

}  // namespace qor::process_manager::process_cache
