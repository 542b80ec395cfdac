// Settings of the whole application, as far as the module reads them.
//
// Required for controls of processes (process_control.h), which ask at each creation, on the thread that asks
// for the control. Not asked for the host itself and its children.
#pragma once

#include "process_manager/services/path_matching.h"
#include "process_manager/types.h"
#include "zym/iobject.h"

namespace qor {

// A record begins with the defaults. The flag stays its last field.
struct AppSettings {
  // What the application writes itself, and leaves out of what it watches. Not read by the module.
  PathList exclusionPaths{"/var/log/quelmarin/vorn/", "/var/opt/quelmarin/vorn/private/storage/events.db",
                          "/var/opt/quelmarin/vorn/common/objects-backup/"};
  // Patterns of images whose processes are invisible to the module's interception; they go unchanged to
  // IPathMatcherFactory::CreatePathMatcher.
  PathList excludedProcesses;
  // Entries of the system journal are to be turned into events.
  bool systemEventsTransmission = false;
};

// Any thread. On a failure of GetSettings no control is made, and its code is the result.
struct IAppSettingsProvider : zym::IObject {
  static constexpr zym::iid_t kIid = 0x345e2eb8;

  // The settings as they are when nobody has set anything. Not called by the module.
  virtual zym::result_t GetDefaultSettings(AppSettings& settings) = 0;
  // Fills the whole record, which the caller passes with the defaults of its type. On a failure it may be
  // filled in part.
  virtual zym::result_t GetSettings(AppSettings& settings) = 0;

 protected:
  ~IAppSettingsProvider() = default;
};

}  // namespace qor
