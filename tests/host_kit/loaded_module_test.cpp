#include "host_kit/loaded_module.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "host_kit/default_services.h"
#include "process_manager/proc_parser.h"
#include "support/threads.h"

namespace {

using host_kit::LoadedModule;
using qor::procfs::IParser;

std::string FailureOf(const std::string& file) {
  try {
    const LoadedModule module(file);
  } catch (const host_kit::Failure& failure) {
    return failure.what();
  }
  return "it was loaded";
}

bool IsLoaded() {
  void* const handle = ::dlopen(PROCESS_MANAGER_MODULE, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) ::dlclose(handle);
  return handle != nullptr;
}

TEST(LoadedModule, AFileThatIsNotThereIsNamed) {
  const std::string failure = FailureOf("/no/such/module.so");
  EXPECT_TRUE(failure.starts_with("cannot load the module /no/such/module.so: ")) << failure;
  EXPECT_NE(failure.find("No such file or directory"), std::string::npos) << failure;
}

TEST(LoadedModule, AnotherLibraryIsRefusedByTheEntryThatItLacks) {
  const std::string failure = FailureOf("libc.so.6");
  EXPECT_TRUE(
      failure.starts_with("libc.so.6 is no process manager module: it has no entry zymGetObjectFactory; "))
      << failure;
}

class LoadedModuleTest : public testing::Test {
 protected:
  zym::intrusive_ptr<IParser> MakeParser() {
    return m_module.Make<IParser>(qor::class_ids::kProcParser, m_locator.get(), "the reader of /proc");
  }

  LoadedModule m_module{PROCESS_MANAGER_MODULE};
  zym::intrusive_ptr<host_kit::ServiceLocator> m_locator = host_kit::MakeDefaultServices();
};

TEST_F(LoadedModuleTest, AClassThatTheModuleLacksIsNamed) {
  try {
    static_cast<void>(m_module.Make<IParser>(0x1234, m_locator.get(), "the moon"));
    FAIL() << "it was made";
  } catch (const host_kit::Failure& failure) {
    EXPECT_STREQ(failure.what(), "the module has no class for the moon: Not implemented (0x80000043)");
  }
}

TEST_F(LoadedModuleTest, AnObjectThatCannotBeMadeIsNamed) {
  m_locator->Remove(zym::ITracer::kIid);
  try {
    static_cast<void>(MakeParser());
    FAIL() << "it was made";
  } catch (const host_kit::Failure& failure) {
    EXPECT_TRUE(std::string(failure.what()).starts_with("the module cannot create the reader of /proc: "))
        << failure.what();
  }
}

TEST_F(LoadedModuleTest, AnObjectOfAnotherKindIsRefused) {
  const CreationRecord record{.locator = m_locator.get()};
  EXPECT_THROW(
      static_cast<void>(m_module.Create<IParser>(qor::class_ids::kProcessCache, record, "the process cache")),
      host_kit::Failure);
  EXPECT_TRUE(m_module.Unload()) << "and released";
}

TEST_F(LoadedModuleTest, UnloadingWaitsForTheLastObject) {
  zym::intrusive_ptr<IParser> parser = MakeParser();
  bool unloaded = false;
  test_support::Call unload([&] { unloaded = m_module.Unload(test_support::kDeadline); });
  EXPECT_TRUE(unload.IsBlocked());
  parser.Reset();
  unload.Join();
  EXPECT_TRUE(unloaded);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_FALSE(IsLoaded());
#endif
}

TEST_F(LoadedModuleTest, AModuleWithAnObjectAliveStaysLoaded) {
  const zym::intrusive_ptr<IParser> parser = MakeParser();
  EXPECT_FALSE(m_module.Unload(std::chrono::milliseconds(0)));
  EXPECT_TRUE(IsLoaded());
  qor::procfs::Stat stat;
  EXPECT_EQ(parser->GetStat(1, stat), zym::ZYM_OK) << "its code is still there";
}

}  // namespace
