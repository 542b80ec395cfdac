// The reader of /proc when memory gives out at each allocation of an operation.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "module/memory_faults.h"
#include "support/child.h"

namespace {

using namespace test_support;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;

TEST(MemoryFaults, EachReadOfProcGivesAResultAndLetsNothingOut) {
  const FaultHost faultHost;
  qor::procfs::IParser& parser = *faultHost.parser;
  const Child shell = Child::Shell("/bin/sh");  // a sanitized process has mappings by the thousand
  const qor::PidType pid = shell.Pid();
  const std::pair<const char*, std::function<zym::result_t()>> operations[] = {
      {"GetProcLink",
       [&] {
         qor::NativePath target;
         return parser.GetProcLink(pid, "exe", target);
       }},
      {"GetMaps",
       [&] {
         qor::procfs::Maps maps;
         return parser.GetMaps(pid, maps);
       }},
      {"GetCmdline",
       [&] {
         zym::types::string16_t cmdline;
         return parser.GetCmdline(pid, cmdline);
       }},
      {"GetProcessList",
       [&] {
         std::vector<unsigned int> pids;
         return parser.GetProcessList(pids);
       }},
      {"GetProcessListByRelevance",
       [&] {
         std::vector<unsigned int> pids;
         return parser.GetProcessListByRelevance(pids);
       }},
      {"GetIOMemMap",
       [&] {
         qor::procfs::IOMemMap map;
         return parser.GetIOMemMap(map);
       }},
      {"GetImagePath",
       [&] {
         qor::NativePath path;
         return parser.GetImagePath(pid, path);
       }},
      {"GetDescriptors",
       [&] {
         std::vector<unsigned int> fds;
         return parser.GetDescriptors(pid, fds);
       }},
      {"GetModules",
       [&] {
         qor::procfs::ModulesList modules;
         return parser.GetModules(modules);
       }},
      {"GetModulesSections",
       [&] {
         qor::procfs::ModulesSections sections;
         return parser.GetModulesSections({}, sections, 0);
       }},
      {"GetCreds",
       [&] {
         qor::procfs::Creds creds;
         return parser.GetCreds(pid, creds);
       }},
      {"GetEnvironmentVariable",
       [&] {
         std::string value;
         return parser.GetEnvironmentVariable(pid, "PATH", value);
       }},
      {"GetEnvironmentVariables",
       [&] {
         zym::types::vector_t<zym::types::string_t> variables;
         return parser.GetEnvironmentVariables(pid, variables);
       }},
      {"GetStat",
       [&] {
         qor::procfs::Stat stat;
         return parser.GetStat(pid, stat);
       }},
      {"GetIOCounters",
       [&] {
         qor::procfs::IOCounters counters;
         return parser.GetIOCounters(pid, counters);
       }},
      {"GetComm",
       [&] {
         std::string comm;
         return parser.GetComm(pid, comm);
       }},
      {"GetDescriptorInfo",
       [&] {
         qor::procfs::DescriptorInfo info;
         return parser.GetDescriptorInfo(pid, 0, info);
       }},
      {"GetWorkingDir",
       [&] {
         qor::NativePath cwd;
         return parser.GetWorkingDir(pid, cwd);
       }},
      {"GetMountNamespaceId",
       [&] {
         std::uint64_t id = 0;
         return parser.GetMountNamespaceId(pid, id);
       }},
  };
  for (const auto& [name, operation] : operations) {
    SCOPED_TRACE(name);
    const zym::result_t healthy = operation();
    for (const Failing failing : {Failing::kOnce, Failing::kFromThenOn}) {
      bool fired = true;
      for (std::uint64_t call = 0; fired && call < kTooMany; ++call) {
        faultHost.host.tracer->Clear();
        const std::int64_t before = HeapFaults::Live();
        HeapFaults faults(Threads::kThis, failing, call);
        const zym::result_t result = operation();
        faults.End();
        fired = faults.Fired();
        if (fired) {
          // A directory that can't be opened says so, for whatever reason.
          EXPECT_TRUE(IsOneOf(result, {zym::ZYM_E_OUT_OF_MEMORY, zym::ZYM_E_UNSPECIFIED}))
              << std::hex << result;
          EXPECT_TRUE(faultHost.host.tracer->Has(300, "")) << "nobody was told";
        } else {
          EXPECT_EQ(result, healthy);
        }
        faultHost.host.tracer->Clear();
        EXPECT_EQ(HeapFaults::Live(), before);
      }
      EXPECT_FALSE(fired) << "it never ended";
    }
  }
}

}  // namespace
