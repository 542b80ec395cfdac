#include "process_manager/process/file_name_normalization.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace qor::process_manager {

// From the last component to the first: a ".." waits for the component before it. What is kept gathers at the
// end of the text, where it never overtakes what is still to be read.
void NormalizeFileName(zym::types::string16_t& name) {
  constexpr std::u16string_view kParent = u"../";
  const bool isAbsolute = name.starts_with(u'/');
  const std::size_t size = name.size();
  std::size_t kept = size;  // [kept, size) is the result so far
  std::size_t parents = 0;
  for (std::size_t end = size; end != 0;) {
    const std::size_t slash = name.rfind(u'/', end - 1);
    const std::size_t begin = slash == zym::types::string16_t::npos ? 0 : slash + 1;
    const auto component = std::u16string_view(name).substr(begin, end - begin);
    if (component == u"..") {
      ++parents;
    } else if (!component.empty() && component != u".") {
      if (parents != 0) {
        --parents;
      } else {
        if (kept != size) name[--kept] = u'/';
        kept -= component.size();
        std::ranges::move_backward(component,
                                   name.begin() + static_cast<std::ptrdiff_t>(kept + component.size()));
      }
    }
    end = begin == 0 ? 0 : begin - 1;
  }
  if (isAbsolute) {
    name[--kept] = u'/';  // nothing is above the root
    parents = 0;
  }
  name.erase(0, kept);
  if (parents != 0) {
    name.insert(0, parents * kParent.size(), u'.');
    for (std::size_t i = 0; i != parents; ++i) name[(i + 1) * kParent.size() - 1] = u'/';
  }
  if (name.empty()) name.assign(1, u'.');
}

}  // namespace qor::process_manager
