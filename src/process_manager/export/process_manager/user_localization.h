// The language of the user behind a process (class id class_ids::kProcessUserLocalizationProvider).
#pragma once

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor::process_manager {

using process_id_t = PidType;

// Any thread.
struct IProcessUserLocalizationProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0x2b415845;

  // The language that the LANG of the process's environment names, such as "ru", "zh-hans" or "zh-hant". A
  // process that is gone, that can't be read, or whose LANG names none ("C", "POSIX", a bare "en", nothing)
  // has the product's language, which the startup record held when the object was made. ZYM_OK in all these
  // cases. A locator without a procfs::IParser fails with its code.
  virtual zym::result_t GetProcessUserLocalization(process_id_t pid,
                                                   zym::types::string16_t& localization) = 0;

 protected:
  ~IProcessUserLocalizationProvider() = default;
};

}  // namespace qor::process_manager
