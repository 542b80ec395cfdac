#include "process_manager/process_cache/later_images.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace qor::process_manager::process_cache {

Version* LaterImages::FindByUniquePid(UniquePidType uniquePid) {
  Image* const image = Find(uniquePid);
  if (m_wholeAgain != nullptr && m_wholeAgain != image) ShareTexts(*std::exchange(m_wholeAgain, nullptr));
  if (image == nullptr) return nullptr;
  if (image->imagePath) {
    MakeWhole(*image);
    m_wholeAgain = image;
  }
  return &image->version;
}

LaterImages::Image* LaterImages::Find(UniquePidType uniquePid) noexcept {
  if (m_lookup) {
    const auto found = m_lookup->byUniquePid.find(uniquePid);
    return found != m_lookup->byUniquePid.end() ? &ImageAt(found->second.oldest) : nullptr;
  }
  const auto found = std::ranges::find(
      m_images, uniquePid, [](const std::unique_ptr<Image>& image) { return image->version.info.uniquePid; });
  return found != m_images.end() ? found->get() : nullptr;
}

Version& LaterImages::Append(Version&& version) {
  m_images.push_back(std::unique_ptr<Image>(new Image{.version = std::move(version)}));
  try {
    if (m_lookup)
      AddTo(*m_lookup, Newest());
    else if (Newest() > kRecent)
      MakeLookup();
  } catch (...) {
    m_images.pop_back();
    throw;
  }
  return m_images.back()->version;
}

void LaterImages::MakeLookup() {
  auto lookup = std::make_unique<Lookup>();
  for (Serial serial = 1; serial <= Newest(); ++serial) AddTo(*lookup, serial);
  m_lookup = std::move(lookup);
}

void LaterImages::AddTo(Lookup& lookup, Serial serial) {
  Image& image = ImageAt(serial);
  const auto [place, isFirst] =
      lookup.byUniquePid.try_emplace(image.version.info.uniquePid, OldestAndNewest{serial, serial});
  image.nextWithItsUniquePid = 0;
  if (!isFirst) ImageAt(std::exchange(place->second.newest, serial)).nextWithItsUniquePid = serial;
}

void LaterImages::ShareTextsBefore(Serial awaited) {
  while (m_shared + 1 < awaited && m_shared + kRecent < Newest()) {
    ShareTexts(ImageAt(m_shared + 1));
    ++m_shared;
  }
}

void LaterImages::DropOldest() noexcept {
  std::unique_ptr<Image>& place = m_images[m_dropped - m_erased];
  const auto found = m_lookup->byUniquePid.find(place->version.info.uniquePid);
  if (place->nextWithItsUniquePid != 0)
    found->second.oldest = place->nextWithItsUniquePid;
  else
    m_lookup->byUniquePid.erase(found);
  if (m_wholeAgain == place.get()) m_wholeAgain = nullptr;
  place.reset();
  ++m_dropped;
  // Not before half of the places are empty, so that on average none is moved more than once.
  if (const Serial empty = m_dropped - m_erased; empty >= m_images.size() - empty) {
    m_images.erase(m_images.begin(), m_images.begin() + static_cast<std::ptrdiff_t>(empty));
    m_erased = m_dropped;
  }
}

// The record gives its texts up when all three are shared: an exception before leaves it whole.
void LaterImages::ShareTexts(Image& image) {
  ProcessInformation& info = image.version.info;
  SharedTexts& texts = m_lookup->texts;
  SharedTexts::Use imagePath = texts.Share(info.imagePath);
  SharedTexts::Use workingDirectory = texts.Share(info.workingDirectory);
  SharedTexts::Use commandLine = texts.Share(info.commandLine);
  image.imagePath = std::move(imagePath);
  image.workingDirectory = std::move(workingDirectory);
  image.commandLine = std::move(commandLine);
  info.imagePath = {};
  info.workingDirectory = {};
  info.commandLine = nullptr;
}

void LaterImages::MakeWhole(Image& image) {
  zym::types::string16_t imagePath = **image.imagePath;
  zym::types::string16_t workingDirectory = **image.workingDirectory;
  ProcessInformation& info = image.version.info;
  info.imagePath = std::move(imagePath);
  info.workingDirectory = std::move(workingDirectory);
  if (image.commandLine) info.commandLine = *image.commandLine;
  image.imagePath = nullptr;
  image.workingDirectory = nullptr;
  image.commandLine = nullptr;
}

}  // namespace qor::process_manager::process_cache
