#include "host/process_details.h"

#include <utility>

#include "host/failure.h"
#include "process_manager/user_localization.h"
#include "zym/service_provider.h"

namespace pmhost {
namespace {

using namespace system_interceptors::process_manager;

// Only the objects of a snapshot have credentials and environments, and a snapshot reads every process there
// is. For one of them this asks the reader of /proc, from which a snapshot takes them, too.
void ReadFromProcfs(qor::procfs::IParser& parser, std::uint32_t pid, ProcessDetails& details) {
  qor::procfs::Creds creds;
  if (ZYM_SUCCEEDED(parser.GetCreds(pid, creds))) {
    details.effectiveUserId = creds.uid[1];
    details.realGroupId = creds.gid[0];
    details.effectiveGroupId = creds.gid[1];
  }
  if (pid == 0) return;  // the kernel has no environment
  zym::types::vector_t<zym::types::string_t> environment;
  if (ZYM_SUCCEEDED(parser.GetEnvironmentVariables(pid, environment)))
    details.environment = std::move(environment);
}

// From what the control knows of the process, which is the object that the module had when it was found.
void ReadNamespace(IProcessControl& control, ProcessDetails& details) {
  zym::intrusive_ptr<IProcessInformation> information;
  zym::intrusive_ptr<IPosixProcessInformation2> posix;
  Require(control.GetInformation(information.Ref()), "cannot read the process of a control");
  Require(zym::QueryInterface(information, posix.Ref()), "a process has no Linux interface");
  std::uint64_t id = qor::kNoMountNamespace;
  Require(posix->GetMountNamespaceId(id), "cannot read a mount namespace");
  if (id == qor::kNoMountNamespace) return;
  details.mountNamespace = id;
  details.hostMountNamespace = posix->IsHostMountNamespace() == zym::ZYM_OK;
}

void ReadFromControl(IProcessControl& control, std::uint32_t pid, ProcessDetails& details) {
  ReadNamespace(control, details);
  zym::intrusive_ptr<IProcessAttributes> attributes;
  Require(zym::QueryInterface(zym::intrusive_ptr(&control), attributes.Ref()), "a control has no attributes");
  std::uint32_t flags = 0;
  Require(attributes->GetAttributeFlags(flags), "cannot read the attributes of a process");
  details.attributes = flags;
  if (pid == 0) return;  // of the kernel nothing is counted
  ProcessTimes times;
  if (ZYM_SUCCEEDED(control.GetTimes(times))) details.times = times;
  ProcessIoCounters io;
  if (ZYM_SUCCEEDED(control.GetIoCounters(io))) details.io = io;
}

}  // namespace

ProcessDetails ReadDetails(Host& host, std::uint32_t pid) {
  ProcessDetails details;
  ReadFromProcfs(*host.GetParser(), pid, details);
  zym::intrusive_ptr<IProcessControl> control;
  if (ZYM_SUCCEEDED(host.GetProcessManager()->GetControl(pid, control.Ref())))
    ReadFromControl(*control, pid, details);
  // Of a process whose environment can't be read the module would report the language of its own user.
  if (details.environment) {
    const auto provider = host.Make<qor::process_manager::IProcessUserLocalizationProvider>(
        qor::class_ids::kProcessUserLocalizationProvider, "the provider of languages");
    zym::types::string16_t localization;
    Require(provider->GetProcessUserLocalization(pid, localization), "cannot read the language of a process");
    details.localization = std::move(localization);
  }
  return details;
}

}  // namespace pmhost
