// The control of a process that is known by its pid alone.
#pragma once

#include "process_manager/process_manager.h"
#include "zym/object.h"

namespace test_support {

class FakeProcessInformation
    : public zym::object::Ifaces<system_interceptors::process_manager::IProcessInformation> {
 public:
  FakeProcessInformation(qor::PidType pid, zym::result_t result) : m_pid(pid), m_result(result) {}

  zym::result_t GetInformation(system_interceptors::process_manager::ProcessInformation& info) override {
    if (ZYM_SUCCEEDED(m_result)) info.pid = m_pid;
    return m_result;
  }

 private:
  const qor::PidType m_pid;
  const zym::result_t m_result;
};

class FakeProcessControl : public zym::object::Ifaces<system_interceptors::process_manager::IProcessControl> {
 public:
  // `objectResult`: of asking for the information object, which is given with ZYM_OK alone; `recordResult`:
  // of asking that for its record.
  explicit FakeProcessControl(qor::PidType pid, zym::result_t objectResult = zym::ZYM_OK,
                              zym::result_t recordResult = zym::ZYM_OK)
      : m_pid(pid), m_objectResult(objectResult), m_recordResult(recordResult) {}

  zym::result_t GetInformation(
      system_interceptors::process_manager::IProcessInformation** information) override {
    if (m_objectResult == zym::ZYM_OK)
      *information = zym::CreateObject<FakeProcessInformation>(m_pid, m_recordResult).Detach();
    return m_objectResult;
  }
  zym::result_t GetExitTime(zym::datetime_t&) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t GetTimes(system_interceptors::process_manager::ProcessTimes&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
  zym::result_t GetIoCounters(system_interceptors::process_manager::ProcessIoCounters&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
  zym::result_t GetVmCounters(system_interceptors::process_manager::ProcessVmCounters&) override {
    return zym::ZYM_E_NOT_IMPLEMENTED;
  }
  zym::result_t IsSystemCriticalProcess(bool&) override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t Terminate() override { return zym::ZYM_E_NOT_IMPLEMENTED; }
  zym::result_t TerminateAndWait(unsigned) override { return zym::ZYM_E_NOT_IMPLEMENTED; }

 private:
  const qor::PidType m_pid;
  const zym::result_t m_objectResult;
  const zym::result_t m_recordResult;
};

}  // namespace test_support
