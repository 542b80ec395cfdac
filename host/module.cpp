#include "host/module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "host/failure.h"

namespace pmhost {
namespace {

constexpr const char* kFileName = "libprocess_manager.so";

// A thread of the module may still hold an object for a moment after the last release of ours, and the module
// tells of its last object only when it is asked.
constexpr std::chrono::seconds kUnloadDeadline{5};
constexpr std::chrono::milliseconds kUnloadPoll{1};

// Beside the program in a build tree; in ../lib in an installed one.
std::string FindModule() {
  std::error_code error;
  const std::filesystem::path directory =
      std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  for (const std::filesystem::path& place :
       {directory / kFileName, directory.parent_path() / "lib" / kFileName})
    if (std::filesystem::exists(place, error)) return place;
  throw Failure(std::string(kFileName) +
                " is neither beside pmhost nor in ../lib: name it with --module FILE");
}

}  // namespace

Module::Module(const std::string& file)
    // Absolute: a name without a slash would be looked for where libraries are, and not in this directory.
    : m_file(file.empty() ? FindModule() : std::filesystem::absolute(file).string()),
      m_handle(::dlopen(m_file.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (m_handle == nullptr) throw Failure("cannot load the module " + m_file + ": " + ::dlerror());
  m_getObjectFactory = reinterpret_cast<decltype(m_getObjectFactory)>(Find("zymGetObjectFactory"));
  m_createObject = reinterpret_cast<decltype(m_createObject)>(Find("zymCreateObject"));
  m_canUnloadModule = reinterpret_cast<decltype(m_canUnloadModule)>(Find("zymCanUnloadModule"));
}

Module::~Module() {
  const auto deadline = std::chrono::steady_clock::now() + kUnloadDeadline;
  while (m_canUnloadModule() != zym::ZYM_OK && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(kUnloadPoll);
  if (m_canUnloadModule() != zym::ZYM_OK) {
    std::fprintf(stderr, "pmhost: %s still has objects alive and stays loaded\n", m_file.c_str());
    return;
  }
  ::dlclose(m_handle);
}

void* Module::Find(const char* name) const {
  void* const found = ::dlsym(m_handle, name);
  if (found == nullptr) {
    ::dlclose(m_handle);
    throw Failure(m_file + " is no process manager module: it has no entry " + name);
  }
  return found;
}

zym::IObject* Module::CreateObject(std::uint32_t classId, const CreationRecord& record,
                                   const char* what) const {
  zym::IObject* object = nullptr;
  Require(m_createObject(classId, &record, &object), std::string("the module cannot make ") + what);
  return object;
}

void* Module::MakeInstance(std::uint32_t classId, zym::IServiceLocator* locator, zym::iid_t iid,
                           const char* what) const {
  zym::intrusive_ptr<zym::IObjectFactory> factory;
  Require(m_getObjectFactory(locator, classId, factory.Ref()),
          std::string("the module has no class for ") + what);
  void* object = nullptr;
  Require(factory->CreateInstance(locator, iid, &object), std::string("the module cannot make ") + what);
  return object;
}

}  // namespace pmhost
