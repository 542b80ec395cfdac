// A reader of /proc that answers as a test says, and passes on what the test says nothing of.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "process_manager/proc_parser.h"
#include "zym/object.h"

// The operations of qor::procfs::IParser, in their order: OPERATION(name, parameters, arguments).
#define PARSER_OPERATIONS(OPERATION)                                                                      \
  OPERATION(GetStat, (qor::PidType pid, qor::procfs::Stat & stat), (pid, stat))                           \
  OPERATION(GetIOCounters, (qor::PidType pid, qor::procfs::IOCounters & counters), (pid, counters))       \
  OPERATION(GetProcLink, (qor::PidType pid, const qor::NativePath& name, qor::NativePath& target),        \
            (pid, name, target))                                                                          \
  OPERATION(GetMaps, (qor::PidType pid, qor::procfs::Maps & maps), (pid, maps))                           \
  OPERATION(GetCmdline, (qor::PidType pid, zym::types::string16_t & cmdline), (pid, cmdline))             \
  OPERATION(GetProcessList, (std::vector<unsigned int> & pids), (pids))                                   \
  OPERATION(GetProcessListByRelevance, (std::vector<unsigned int> & pids), (pids))                        \
  OPERATION(GetIOMemMap, (qor::procfs::IOMemMap & map), (map))                                            \
  OPERATION(GetImagePath, (qor::PidType pid, qor::NativePath & path), (pid, path))                        \
  OPERATION(GetDescriptors, (qor::PidType pid, std::vector<unsigned int> & fds), (pid, fds))              \
  OPERATION(GetDescriptorInfo, (qor::PidType pid, unsigned int fd, qor::procfs::DescriptorInfo& info),    \
            (pid, fd, info))                                                                              \
  OPERATION(GetModules, (qor::procfs::ModulesList & modules), (modules))                                  \
  OPERATION(GetModulesSections,                                                                           \
            (const qor::procfs::ModulesList& modules, qor::procfs::ModulesSections& sections,             \
             std::uint64_t sectionEnd),                                                                   \
            (modules, sections, sectionEnd))                                                              \
  OPERATION(GetCreds, (qor::PidType pid, qor::procfs::Creds & creds), (pid, creds))                       \
  OPERATION(GetEnvironmentVariable, (qor::PidType pid, const char* name, std::string& value),             \
            (pid, name, value))                                                                           \
  OPERATION(GetWorkingDir, (qor::PidType pid, qor::NativePath & cwd), (pid, cwd))                         \
  OPERATION(GetComm, (qor::PidType pid, std::string & comm), (pid, comm))                                 \
  OPERATION(GetEnvironmentVariables,                                                                      \
            (qor::PidType pid, zym::types::vector_t<zym::types::string_t> & variables), (pid, variables)) \
  OPERATION(GetMountNamespaceId, (qor::PidType pid, std::uint64_t & id), (pid, id))

namespace test_support {

// Each operation has an answer beside it, `onGetStat` and so on, that a test may set before the threads that
// ask begin. Without one the inner reader answers; without that, too, it is ZYM_E_NOT_SUPPORTED.
class ForwardingParser : public zym::object::Ifaces<qor::procfs::IParser> {
 public:
  ForwardingParser() = default;
  explicit ForwardingParser(zym::intrusive_ptr<qor::procfs::IParser> inner) : m_inner(std::move(inner)) {}

#define FORWARD(Name, parameters, arguments)                             \
  zym::result_t Name parameters override {                               \
    if (on##Name) return on##Name arguments;                             \
    return m_inner ? m_inner->Name arguments : zym::ZYM_E_NOT_SUPPORTED; \
  }                                                                      \
  std::function<zym::result_t parameters> on##Name;
  PARSER_OPERATIONS(FORWARD)
#undef FORWARD

 private:
  const zym::intrusive_ptr<qor::procfs::IParser> m_inner;
};

}  // namespace test_support
