// The module as a host loads it, for black-box tests.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <stdexcept>
#include <string>

#include "process_manager/entry.h"
#include "support/own_process.h"
#include "zym/intrusive_ptr.h"

namespace test_support {

// Loaded from construction to destruction, which checks that it says it may be unloaded, that it is gone then
// with every thread and every descriptor that came with it, and that it can be loaded again.
class LoadedModule {
 public:
  explicit LoadedModule(const char* path = PROCESS_MANAGER_MODULE)
      : m_path(path),
        m_threads(ThreadCount()),
        m_descriptors(OpenDescriptors()),
        m_handle(::dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (m_handle == nullptr) throw std::runtime_error(::dlerror());
    getObjectFactory = Find<decltype(&zymGetObjectFactory)>("zymGetObjectFactory");
    createObject = Find<decltype(&zymCreateObject)>("zymCreateObject");
    canUnloadModule = Find<decltype(&zymCanUnloadModule)>("zymCanUnloadModule");
  }
  ~LoadedModule() {
    EXPECT_EQ(canUnloadModule(), zym::ZYM_OK) << "an object of the module is still alive";
    EXPECT_EQ(::dlclose(m_handle), 0);
    EXPECT_EQ(ThreadCount(), m_threads);
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(::dlopen(m_path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << "something pins the module";
#endif
    void* const again = ::dlopen(m_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(again, nullptr) << ::dlerror();
    EXPECT_EQ(again != nullptr ? ::dlclose(again) : 0, 0);
  }
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

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

  decltype(&zymGetObjectFactory) getObjectFactory;
  decltype(&zymCreateObject) createObject;
  decltype(&zymCanUnloadModule) canUnloadModule;

 private:
  template <class F>
  F Find(const char* name) const {
    void* const found = ::dlsym(m_handle, name);
    if (found == nullptr) throw std::runtime_error(std::string("no entry ") + name);
    return reinterpret_cast<F>(found);
  }

  std::string m_path;
  std::size_t m_threads;  // before it was loaded, as the next
  std::map<int, std::string> m_descriptors;
  void* m_handle;
};

}  // namespace test_support
