// The normalisation of file names, with any units, beside a stack of components read from the front.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "process_manager/process/file_name_normalization.h"

namespace {

void Require(bool condition) {
  if (!condition) std::abort();
}

std::u16string Expected(std::u16string_view name) {
  const bool isAbsolute = name.starts_with(u'/');
  std::vector<std::u16string_view> names;
  std::size_t parents = 0;
  for (std::size_t begin = 0; begin <= name.size();) {
    const std::size_t end = std::min(name.find(u'/', begin), name.size());
    const std::u16string_view component = name.substr(begin, end - begin);
    begin = end + 1;
    if (component.empty() || component == u".") continue;
    if (component != u"..")
      names.push_back(component);
    else if (!names.empty())
      names.pop_back();
    else
      ++parents;
  }
  std::u16string result = isAbsolute ? u"/" : u"";
  if (!isAbsolute)
    for (; parents != 0; --parents) result += u"../";
  for (std::size_t i = 0; i != names.size(); ++i) {
    if (i != 0) result += u'/';
    result += names[i];
  }
  return result.empty() ? u"." : result;
}

zym::types::string16_t Normalized(std::u16string_view name) {
  zym::types::string16_t result(name);
  qor::process_manager::NormalizeFileName(result);
  return result;
}

}  // namespace

// A byte of ASCII stands for itself, any other one, with the byte behind it, for a unit.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::u16string name;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] < 0x80)
      name += static_cast<char16_t>(data[i]);
    else if (i + 1 < size)
      name += static_cast<char16_t>(data[i] << 8 | data[i + 1]), ++i;
  }
  const zym::types::string16_t once = Normalized(name);
  Require(std::u16string_view(once) == Expected(name));
  Require(Normalized(once) == once);
  Require(once.size() <= name.size() + 1);
  return 0;
}
