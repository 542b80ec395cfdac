#include "host_kit/loaded_module.h"

#include <dlfcn.h>

#include <thread>

namespace host_kit {
namespace {

// The module has nothing to wait for: it answers when it is asked.
constexpr std::chrono::milliseconds kUnloadPoll{1};

}  // namespace

LoadedModule::LoadedModule(const std::string& file)
    : m_file(file), m_handle(::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL), &::dlclose) {
  if (!m_handle)
    throw Failure("cannot load the module " + m_file + ": " + ::dlerror() +
                  "; name the libprocess_manager.so that was installed with this package");
  m_entries = {
      .getObjectFactory = Find<decltype(&zymGetObjectFactory)>("zymGetObjectFactory"),
      .createObject = Find<decltype(&zymCreateObject)>("zymCreateObject"),
      .canUnloadModule = Find<decltype(&zymCanUnloadModule)>("zymCanUnloadModule"),
  };
}

LoadedModule::~LoadedModule() {
  if (m_handle) static_cast<void>(Unload());
}

bool LoadedModule::Unload(std::chrono::milliseconds deadline) noexcept {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (m_entries.canUnloadModule() != zym::ZYM_OK) {
    if (std::chrono::steady_clock::now() >= end) {
      static_cast<void>(m_handle.release());  // code that an object can still reach stays where it is
      return false;
    }
    std::this_thread::sleep_for(kUnloadPoll);
  }
  m_handle.reset();
  return true;
}

template <class F>
F LoadedModule::Find(const char* name) const {
  void* const found = ::dlsym(m_handle.get(), name);
  if (found == nullptr)
    throw Failure(m_file + " is no process manager module: it has no entry " + name +
                  "; name the libprocess_manager.so that was installed with this package");
  return reinterpret_cast<F>(found);
}

}  // namespace host_kit
