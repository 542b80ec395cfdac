// What the host knew when it started. Required. Any thread.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

// What the host knew when it started.
struct StartupData {
  std::uint32_t size = sizeof(StartupData);
  std::uint32_t reserved = 0;
  std::uint32_t environCapturing = 1;  // the value that turns environment capturing on in the exec listener
  std::uint8_t fanotifyAvailable = 0;  // the kernel lets this process watch with fanotify
  std::uint8_t startedByWatchdog = 0;  // the parent of this process is the product's watchdog
  // The language of the product, as ProcessUserLocalizationProvider names one: "en", "zh-hans".
  zym::types::string16_t localization;
};

struct IStartupDataProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0xa26c8413;

  // Never null; valid and unchanged while the provider lives.
  virtual const StartupData* GetStartupData() = 0;

 protected:
  ~IStartupDataProvider() = default;
};

}  // namespace qor
