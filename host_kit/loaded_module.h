// The module in this process, loaded as a daemon loads it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "host_kit/failure.h"
#include "process_manager/entry.h"
#include "zym/intrusive_ptr.h"
#include "zym/service_provider.h"

namespace host_kit {

// Owns the loaded file. Declare it before everything that holds an object of the module: the code of these
// objects goes with it. Any thread may make objects.
class LoadedModule {
 public:
  // The functions that the module exports; entry.h is their contract.
  struct Entries {
    decltype(&zymGetObjectFactory) getObjectFactory;
    decltype(&zymCreateObject) createObject;
    decltype(&zymCanUnloadModule) canUnloadModule;
  };

  // How long the module may take to let go of its last object. A thread of it can still hold one for a moment
  // after the host has released its own.
  static constexpr std::chrono::seconds kUnloadDeadline{5};

  // Loads `file` as dlopen(3) finds it: a name without a slash is looked for where libraries are. Throws
  // Failure when it can't be loaded, and when it is another library.
  explicit LoadedModule(const std::string& file);
  // Unload() with its own deadline. When an object is still alive then, the module stays loaded for good; a
  // host that wants to know calls Unload itself.
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  // Waits until no object of the module is alive, and unloads it; no other operation may be called after
  // that. False: after `deadline` an object is still alive, and the module stays loaded.
  bool Unload(std::chrono::milliseconds deadline = kUnloadDeadline) noexcept;

  [[nodiscard]] const Entries& GetEntries() const noexcept { return m_entries; }
  // The name that it was loaded by.
  [[nodiscard]] const std::string& GetFile() const noexcept { return m_file; }

  // An object of zymCreateObject, by its interface I. Throws Failure: "the module cannot create <what>: ...".
  template <class I>
  [[nodiscard]] zym::intrusive_ptr<I> Create(std::uint32_t classId, const CreationRecord& record,
                                             const std::string& what) const {
    zym::intrusive_ptr<zym::IObject> object;
    zym::intrusive_ptr<I> made;
    Require(m_entries.createObject(classId, &record, object.Ref()), "the module cannot create " + what);
    Require(zym::QueryInterface(object, made.Ref()), "the module makes another kind of " + what);
    return made;
  }

  // An object of a factory, by its interface I. Throws Failure: "the module cannot create <what>: ...".
  template <class I>
  [[nodiscard]] zym::intrusive_ptr<I> Make(std::uint32_t classId, zym::IServiceLocator* locator,
                                           const std::string& what) const {
    zym::intrusive_ptr<zym::IObjectFactory> factory;
    zym::intrusive_ptr<I> made;
    Require(m_entries.getObjectFactory(locator, classId, factory.Ref()),
            "the module has no class for " + what);
    Require(zym::CreateInstance(factory.get(), locator, made.Ref()), "the module cannot create " + what);
    return made;
  }

 private:
  using Handle = std::unique_ptr<void, int (*)(void*)>;

  template <class F>
  F Find(const char* name) const;

  std::string m_file;
  Handle m_handle;  // empty: unloaded
  Entries m_entries;
};

}  // namespace host_kit
