// Facts that the host knew when it started.
//
// Required by the interceptor and by ProcessUserLocalizationProvider, at their creation, which fails with the
// locator's code; asked for again when the capturing of environments is turned on.
#pragma once

#include <cstdint>

#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

struct StartupData {
  std::uint32_t size = sizeof(StartupData);
  std::uint32_t reserved = 0;
  std::uint32_t environCapturing = 1;  // the value that turns environment capturing on in the exec listener
  std::uint8_t fanotifyAvailable = 0;  // the kernel lets this process use fanotify
  std::uint8_t startedByWatchdog = 0;  // the parent of this process is the product's watchdog
  // The language of the product, as ProcessUserLocalizationProvider names one: "en", "zh-hans".
  zym::types::string16_t localization;
};

// Any thread.
struct IStartupDataProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0xa26c8413;

  // Never null; valid and unchanged while the provider lives.
  virtual const StartupData* GetStartupData() = 0;

 protected:
  ~IStartupDataProvider() = default;
};

}  // namespace qor
