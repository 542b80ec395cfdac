// The module as a host loads it, for black-box tests.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>

#include "host_kit/loaded_module.h"
#include "support/own_process.h"
#include "zym/intrusive_ptr.h"
#include "zym/service_provider.h"

namespace test_support {

// Loaded from construction to destruction, which checks that it says it may be unloaded, that it is gone then
// with every thread and every descriptor that came with it, and that it can be loaded again.
class LoadedModule {
 public:
  explicit LoadedModule(const char* path = PROCESS_MANAGER_MODULE)
      : m_threads(ThreadCount()),
        m_descriptors(OpenDescriptors()),
        m_module(path),
        getObjectFactory(m_module.GetEntries().getObjectFactory),
        createObject(m_module.GetEntries().createObject),
        canUnloadModule(m_module.GetEntries().canUnloadModule) {}
  ~LoadedModule() {
    EXPECT_EQ(canUnloadModule(), zym::ZYM_OK) << "an object of the module is still alive";
    m_module.Unload();
    EXPECT_EQ(ThreadCount(), m_threads);
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(::dlopen(m_module.GetFile().c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr)
        << "something pins the module";
#endif
    EXPECT_NO_THROW(host_kit::LoadedModule(m_module.GetFile()));
  }
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  [[nodiscard]] const host_kit::LoadedModule& Kit() const {
    return m_module;
  }

  // An object of zymCreateObject by its primary interface.
  template <class I>
  zym::result_t Create(std::uint32_t classId, zym::IServiceLocator* locator,
                       zym::intrusive_ptr<I>& out) const {
    const CreationRecord record{.locator = locator};
    zym::IObject* object = nullptr;
    const zym::result_t result = createObject(classId, &record, &object);
    if (result == zym::ZYM_OK) out = zym::intrusive_ptr<I>::Attach(static_cast<I*>(object));
    return result;
  }

  // An object of a factory.
  template <class I>
  zym::result_t Make(std::uint32_t classId, zym::IServiceLocator* locator, zym::intrusive_ptr<I>& out) const {
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    if (const zym::result_t result = getObjectFactory(locator, classId, factory.Ref()); result != zym::ZYM_OK)
      return result;
    return zym::CreateInstance(factory.get(), locator, out.Ref());
  }

 private:
  std::size_t m_threads;  // before it was loaded, as the next
  std::map<int, std::string> m_descriptors;
  host_kit::LoadedModule m_module;

 public:
  const decltype(&zymGetObjectFactory) getObjectFactory;
  const decltype(&zymCreateObject) createObject;
  const decltype(&zymCanUnloadModule) canUnloadModule;
};

}  // namespace test_support
