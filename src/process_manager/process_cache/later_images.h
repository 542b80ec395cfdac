// The images that one pid ran after its first, in order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "process_manager/process_cache/shared_texts.h"
#include "process_manager/process_records.h"
#include "process_manager/types.h"

namespace qor::process_manager::process_cache {

// One image of one pid. Sequence numbers are 0 until the transition is reported.
struct Version {
  std::uint64_t startSequence = 0;
  std::uint64_t endSequence = 0;
  ProcessInformation info;
};

// Images have serials, from 1 on. The oldest can be dropped; the serials of the others stay what they are.
//
// Most processes have one image here, or two, and the records of these are all that it costs. From nine
// images on there is an index by unique pid, and older images of which no report is awaited share their
// texts: a process that replaces itself again and again mostly runs the same few programs. Such an image is
// made whole when it is searched for.
class LaterImages {
 public:
  using Serial = std::uint32_t;

  // The newest are always whole and never dropped: a refused exec looks at the last but one.
  static constexpr Serial kRecent = 8;

  // The serial of the newest, 0 before there is one. Dropped images count.
  [[nodiscard]] Serial Newest() const noexcept { return m_erased + static_cast<Serial>(m_images.size()); }
  // How many of the oldest were dropped.
  [[nodiscard]] Serial Dropped() const noexcept { return m_dropped; }
  // How many different unique pids the index holds, 0 without an index.
  [[nodiscard]] std::size_t IndexedCount() const noexcept {
    return m_lookup ? m_lookup->byUniquePid.size() : 0;
  }
  // How many different texts the older images share.
  [[nodiscard]] std::size_t SharedTextCount() const noexcept { return m_lookup ? m_lookup->texts.Size() : 0; }

  // Of an image that is recent, or whose texts were never shared. It stays in its place until it is dropped.
  Version& At(Serial serial) noexcept { return ImageAt(serial).version; }
  // The oldest with this unique pid, or null. It is whole until the next search.
  Version* FindByUniquePid(UniquePidType uniquePid);

  Version& Append(Version&& version);
  // Images before `awaited` await no report: those of them that aren't recent share their texts from now on.
  void ShareTextsBefore(Serial awaited);
  // Of an image that shares its texts.
  void DropOldest() noexcept;

 private:
  struct Image {
    Version version;
    SharedTexts::Use imagePath;  // null, like the other two, while the record has its texts itself
    SharedTexts::Use workingDirectory;
    SharedTexts::Use commandLine;
    Serial nextWithItsUniquePid = 0;
  };
  struct OldestAndNewest {
    Serial oldest;
    Serial newest;
  };
  struct Lookup {
    SharedTexts texts;
    std::unordered_map<UniquePidType, OldestAndNewest> byUniquePid;
  };

  Image& ImageAt(Serial serial) noexcept { return *m_images[serial - m_erased - 1]; }
  void MakeLookup();
  void AddTo(Lookup& lookup, Serial serial);
  Image* Find(UniquePidType uniquePid) noexcept;
  void ShareTexts(Image& image);
  static void MakeWhole(Image& image);

  std::unique_ptr<Lookup> m_lookup;  // null up to kRecent images; these use its texts
  std::vector<std::unique_ptr<Image>> m_images;
  Serial m_erased = 0;            // the serial before that of the first place in m_images
  Serial m_dropped = 0;           // up to this serial the places are empty
  Serial m_shared = 0;            // up to this serial images share their texts,
  Image* m_wholeAgain = nullptr;  // but for this one
};

}  // namespace qor::process_manager::process_cache
