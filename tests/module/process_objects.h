// Processes as objects, through the module as a host uses it.
#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "module/module_host.h"
#include "process_manager/process_manager.h"
#include "support/fake_exclusions.h"
#include "zym/utf.h"

namespace test_support {

namespace process = system_interceptors::process_manager;

// The module's door to processes, with what it asks of a host. Goes before the host.
class Processes {
 public:
  explicit Processes(ModuleHost& host) {
    host.host.locator->Add(settings, qor::IAppSettingsProvider::kIid);
    host.host.locator->Add(matchers, qor::IPathMatcherFactory::kIid);
    EXPECT_EQ(host.module.Make(qor::class_ids::kProcessManager, host.host.locator.get(), manager),
              zym::ZYM_OK);
  }

  // These must be had.
  [[nodiscard]] zym::intrusive_ptr<process::IProcessInformation> InformationOf(qor::PidType pid) const {
    zym::intrusive_ptr<process::IProcessInformation> information;
    return Had(manager->GetInformation(pid, information.Ref()), information);
  }
  [[nodiscard]] zym::intrusive_ptr<process::IProcessInformation> InformationByUniqueId(
      qor::UniquePidType uniquePid) const {
    zym::intrusive_ptr<process::IProcessInformation> information;
    return Had(manager->GetInformationByUniqueId(uniquePid, information.Ref()), information);
  }
  [[nodiscard]] zym::intrusive_ptr<process::IProcessControl> ControlOf(qor::PidType pid) const {
    zym::intrusive_ptr<process::IProcessControl> control;
    return Had(manager->GetControl(pid, control.Ref()), control);
  }
  [[nodiscard]] zym::intrusive_ptr<process::IProcessControl> ControlByUniqueId(
      qor::UniquePidType uniquePid) const {
    zym::intrusive_ptr<process::IProcessControl> control;
    return Had(manager->GetControlByUniqueId(uniquePid, control.Ref()), control);
  }
  [[nodiscard]] zym::intrusive_ptr<process::IProcessInformationEnumerator> Enumerate() const {
    zym::intrusive_ptr<process::IProcessInformationEnumerator> enumerator;
    return Had(manager->Enumerate(enumerator.Ref()), enumerator);
  }

  static process::ProcessInformation RecordOf(process::IProcessInformation& information) {
    process::ProcessInformation record;
    EXPECT_EQ(information.GetInformation(record), zym::ZYM_OK);
    return record;
  }
  static process::ProcessInformation RecordOf(process::IProcessControl& control) {
    zym::intrusive_ptr<process::IProcessInformation> information;
    EXPECT_EQ(control.GetInformation(information.Ref()), zym::ZYM_OK);
    return RecordOf(*information);
  }
  [[nodiscard]] process::ProcessInformation RecordOf(qor::PidType pid) const {
    return RecordOf(*InformationOf(pid));
  }

  // What is left of the list.
  static std::vector<zym::intrusive_ptr<process::IProcessInformation>> Walk(
      process::IProcessInformationEnumerator& enumerator) {
    std::vector<zym::intrusive_ptr<process::IProcessInformation>> processes;
    zym::intrusive_ptr<process::IProcessInformation> information;
    while (enumerator.Next(information.Ref()) == zym::ZYM_OK) processes.push_back(std::move(information));
    return processes;
  }

  static std::uint32_t FlagsOf(const zym::intrusive_ptr<process::IProcessControl>& control) {
    zym::intrusive_ptr<process::IProcessAttributes> attributes;
    EXPECT_EQ(zym::QueryInterface(control, attributes.Ref()), zym::ZYM_OK);
    std::uint32_t flags = 0;
    EXPECT_EQ(attributes->GetAttributeFlags(flags), zym::ZYM_OK);
    return flags;
  }

  zym::intrusive_ptr<FakeAppSettingsProvider> settings = zym::CreateObject<FakeAppSettingsProvider>();
  zym::intrusive_ptr<FakePathMatcherFactory> matchers = zym::CreateObject<FakePathMatcherFactory>();
  zym::intrusive_ptr<process::IProcessManager> manager;

 private:
  template <class P>
  static P Had(zym::result_t result, P& object) {
    EXPECT_EQ(result, zym::ZYM_OK);
    if (!object) throw std::runtime_error("the object can't be had");
    return std::move(object);
  }
};

inline std::string ToText(std::u16string_view text) {
  return zym::Utf16ToUtf8(text).value_or("not UTF-16");
}

}  // namespace test_support
