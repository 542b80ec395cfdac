// Entries of the module: its three exported functions, and the ids of the classes that they make.
//
// Load the module with dlopen, find the entries with dlsym, and pass them a locator that offers your services
// (services/). All three may be called on any thread, and none throws.
#pragma once

#include <cstdint>

#include "process_manager/interceptor_settings.h"
#include "zym/iobject.h"
#include "zym/tracer.h"

namespace qor::class_ids {

// For zymGetObjectFactory.
inline constexpr std::uint32_t kApplicationManager = 0x2f9b276b;            // IApplicationManager
inline constexpr std::uint32_t kFileNameMapper = 0x590aee12;                // IFileNameMapper
inline constexpr std::uint32_t kTypeDescriptorStaticRegistry = 0x272f5652;  // IMetaInfoProvider
inline constexpr std::uint32_t kProcessManager = 0xa88589a3;                // IProcessManager
inline constexpr std::uint32_t kProcessModuleManager = 0xebdc6c5d;          // IProcessModuleManager
inline constexpr std::uint32_t kProcessUserLocalizationProvider =
    0xe9e2637f;                                                     // IProcessUserLocalizationProvider
inline constexpr std::uint32_t kProcessMemoryFactory = 0x210cc261;  // IProcessMemoryFactory
inline constexpr std::uint32_t kProcParser = 0x9faa28c0;            // procfs::IParser
inline constexpr std::uint32_t kLocalProcParser = 0xfc6a6123;       // procfs::IParser

// For zymCreateObject.
inline constexpr std::uint32_t kInterceptor = 0x15aee499;                      // CreationRecord
inline constexpr std::uint32_t kInterceptorSettingsSubscription = 0xf2c28292;  // SettingsCreationRecord
inline constexpr std::uint32_t kProcessCache = 0x034b5e94;                     // CreationRecord

// Not a class: with this id both functions that make objects terminate the process.
inline constexpr std::uint32_t kTripWire = 0xbad1bad1;

}  // namespace qor::class_ids

extern "C" {

// Arguments of zymCreateObject. The locator stands first in the record of every class.
struct CreationRecord {
  zym::IServiceLocator* locator;
};

// For InterceptorSettingsSubscription. It needs a tracer and no other service: `tracer`, if it is not null,
// else the locator's. `settings` is the first value; null stands for the default.
struct SettingsCreationRecord {
  CreationRecord base;
  zym::ITracer* tracer;
  const qor::process_manager::InterceptorSettings* settings;
};

// Makes a factory of the class, with one reference. ZYM_E_NOT_IMPLEMENTED, with null written to `factory`:
// there is no such class here.
zym::result_t zymGetObjectFactory(zym::IServiceLocator* locator, std::uint32_t classId,
                                  zym::IObjectFactory** factory);

// Makes an object of the class, with one reference. ZYM_E_CLASS_NOT_FOUND: there is no such class here. Any
// other failure is that of the construction. On a failure `object` is left as it was.
zym::result_t zymCreateObject(std::uint32_t classId, const CreationRecord* record, zym::IObject** object);

// ZYM_OK: no object of the module is alive, so it may be unloaded. ZYM_FALSE: one is.
zym::result_t zymCanUnloadModule();

}  // extern "C"
