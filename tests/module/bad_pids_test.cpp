// Pids that are no process's, given to everything that takes one beside the door to processes itself.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "module/process_objects.h"
#include "process_manager/process_memory.h"
#include "process_manager/process_modules.h"
#include "process_manager/user_localization.h"
#include "support/actor.h"
#include "support/fake_process_control.h"
#include "support/memory_actor.h"
#include "support/threads.h"

namespace {

using namespace test_support;
using namespace system_interceptors::process_memory_manager;
using qor::PidType;

constexpr PidType kBeyondPidMax = 4194305;  // PID_MAX_LIMIT of the kernel's linux/threads.h, and one
constexpr std::uint64_t kAddress = 0x10000;

// What is left when an object isn't given.
template <class I>
class Untouched {
 public:
  I** Ref() {
    m_object = Nothing();
    return &m_object;
  }
  ~Untouched() { EXPECT_EQ(m_object, Nothing()) << "there is an object in spite of the failure"; }

 private:
  I* Nothing() { return reinterpret_cast<I*>(&m_nothing); }

  int m_nothing = 0;
  I* m_object = Nothing();
};

class BadPids : public testing::Test {
 protected:
  BadPids() {
    m_host.host.startupData->data.localization = u"xx";
    zym::IServiceLocator* const locator = m_host.host.locator.get();
    EXPECT_EQ(m_host.module.Make(qor::class_ids::kProcessModuleManager, locator, m_modules), zym::ZYM_OK);
    EXPECT_EQ(m_host.module.Make(qor::class_ids::kProcessMemoryFactory, locator, m_memories), zym::ZYM_OK);
    EXPECT_EQ(m_host.module.Make(qor::class_ids::kProcessUserLocalizationProvider, locator, m_languages),
              zym::ZYM_OK);
  }

  std::u16string LanguageOf(PidType pid) const {
    zym::types::string16_t language = u"before";
    EXPECT_EQ(m_languages->GetProcessUserLocalization(pid, language), zym::ZYM_OK);
    return {language.begin(), language.end()};
  }
  std::vector<std::uint64_t> ModulesOf(PidType pid) const {
    zym::intrusive_ptr<process::IProcessModuleEnumerator> enumerator;
    EXPECT_EQ(m_modules->EnumerateModules(pid, enumerator.Ref()), zym::ZYM_OK);
    std::vector<std::uint64_t> bases;
    zym::intrusive_ptr<process::IProcessModule> module;
    while (enumerator && enumerator->Next(module.Ref()) == zym::ZYM_OK)
      EXPECT_EQ(module->GetBaseAddress(bases.emplace_back()), zym::ZYM_OK);
    return bases;
  }

  ModuleHost m_host;
  Processes m_processes{m_host};
  zym::intrusive_ptr<process::IProcessModuleManager> m_modules;
  zym::intrusive_ptr<IProcessMemoryFactory> m_memories;
  zym::intrusive_ptr<qor::process_manager::IProcessUserLocalizationProvider> m_languages;
};

struct Answers {
  const char* name;
  PidType pid;
  std::uint32_t enumerateModules;
  std::uint32_t getModule;
  std::uint32_t createMemory;  // with a control that names such a pid
};

TEST_F(BadPids, GiveAResultOfTheirOwnAndNoObject) {
  const Answers table[] = {
      // The kernel: its modules are not told yet, its maps are empty, and a memory is of a process.
      {"zero", 0, 0x80000042, 0x8000005e, 0x80000046},
      {"all ones", qor::kNoPid, 0x8000004b, 0x8000004b, 0x8000004b},
      {"the largest signed one", 0x7fffffff, 0x8000004b, 0x8000004b, 0x8000004b},
      {"beyond the last that there can be", kBeyondPidMax, 0x8000004b, 0x8000004b, 0x8000004b},
      {"just gone", static_cast<PidType>(RunTrue()), 0x8000004b, 0x8000004b, 0x8000004b},
  };
  for (const auto& [name, pid, enumerateModules, getModule, createMemory] : table) {
    SCOPED_TRACE(name);
    Untouched<process::IProcessModuleEnumerator> enumerator;
    EXPECT_EQ(static_cast<std::uint32_t>(m_modules->EnumerateModules(pid, enumerator.Ref())),
              enumerateModules);
    Untouched<process::IProcessModule> module;
    EXPECT_EQ(static_cast<std::uint32_t>(m_modules->GetModule(pid, kAddress, module.Ref())), getModule);
    Untouched<IProcessMemory> memory;
    const auto control = zym::CreateObject<FakeProcessControl>(pid);
    EXPECT_EQ(static_cast<std::uint32_t>(m_memories->Create(control.get(), memory.Ref())), createMemory);
    EXPECT_EQ(LanguageOf(pid), u"xx") << "what can't be read speaks the product's";
  }
}

TEST_F(BadPids, TheControlOfTheKernelHasNoMemoryToCreate) {
  Untouched<IProcessMemory> memory;
  EXPECT_EQ(static_cast<std::uint32_t>(m_memories->Create(m_processes.ControlOf(0).get(), memory.Ref())),
            0x80000046U);
  EXPECT_TRUE(m_host.host.tracer->Has(300, "Couldn't obtain information about process"));
}

TEST_F(BadPids, AControlOutlivesItsProcessAndHasNoMemoryToCreateThen) {
  MemoryActor actor;
  const PidType pid = actor.Pid();
  const auto control = m_processes.ControlOf(pid);
  actor.End();
  Untouched<IProcessMemory> memory;
  EXPECT_EQ(static_cast<std::uint32_t>(m_memories->Create(control.get(), memory.Ref())), 0x8000004bU);
  EXPECT_TRUE(m_host.host.tracer->Has(300, "Failed procfs->GetMaps(" + std::to_string(pid) + ", maps)"));
}

// The kernel gives each thread a directory that isn't listed, with the maps, the memory and the environment
// of its process.
TEST_F(BadPids, TheIdOfAThreadIsTakenAsTheKernelTakesIt) {
  Gate started;
  Gate end;
  PidType tid = 0;
  std::thread thread([&] {
    tid = static_cast<PidType>(::syscall(SYS_gettid));
    started.Open();
    end.Wait();
  });
  started.Wait();
  const std::vector<std::uint64_t> modules = ModulesOf(tid);
  EXPECT_GE(modules.size(), 5U);
  zym::intrusive_ptr<process::IProcessModule> module;
  EXPECT_EQ(m_modules->GetModule(tid, modules.at(0), module.Ref()), zym::ZYM_OK);
  EXPECT_EQ(LanguageOf(tid), LanguageOf(static_cast<PidType>(::getpid())));
  zym::intrusive_ptr<IProcessMemory> memory;
  ASSERT_EQ(m_memories->Create(m_processes.ControlOf(tid).get(), memory.Ref()), zym::ZYM_OK);
  const std::uint64_t ours = 0x0123456789abcdef;
  std::uint64_t read = 0;
  auto* const bytes = reinterpret_cast<std::uint8_t*>(&read);
  EXPECT_EQ(memory->ReadMemory(reinterpret_cast<std::uint64_t>(&ours), {bytes, bytes + sizeof(read)}),
            zym::ZYM_OK);
  EXPECT_EQ(read, ours);
  end.Open();
  thread.join();
}

}  // namespace
