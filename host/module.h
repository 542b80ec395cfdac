// The module, loaded as a daemon would load it.
#pragma once

#include <string>

#include "process_manager/entry.h"
#include "zym/intrusive_ptr.h"

namespace pmhost {

class Module {
 public:
  // Loads the file; an empty name stands for the module built or installed with this program. Throws Failure.
  explicit Module(const std::string& file);
  // Unloads it. Every object of it must have been released: one that is still alive is told on standard
  // error, and the module stays loaded.
  ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  // An object of zymCreateObject, by its primary interface. Throws Failure.
  template <class I>
  zym::intrusive_ptr<I> Create(std::uint32_t classId, const CreationRecord& record, const char* what) const {
    return zym::intrusive_ptr<I>::Attach(static_cast<I*>(CreateObject(classId, record, what)));
  }

  // An object of a factory. Throws Failure.
  template <class I>
  zym::intrusive_ptr<I> Make(std::uint32_t classId, zym::IServiceLocator* locator, const char* what) const {
    return zym::intrusive_ptr<I>::Attach(static_cast<I*>(MakeInstance(classId, locator, I::kIid, what)));
  }

 private:
  zym::IObject* CreateObject(std::uint32_t classId, const CreationRecord& record, const char* what) const;
  void* MakeInstance(std::uint32_t classId, zym::IServiceLocator* locator, zym::iid_t iid,
                     const char* what) const;
  void* Find(const char* name) const;

  std::string m_file;
  void* m_handle;
  decltype(&zymGetObjectFactory) m_getObjectFactory;
  decltype(&zymCreateObject) m_createObject;
  decltype(&zymCanUnloadModule) m_canUnloadModule;
};

}  // namespace pmhost
