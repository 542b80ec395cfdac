// The factory of memory objects as it is on another kernel.
#pragma once

#include <functional>
#include <utility>

#include "process_manager/memory/process_memory_factory.h"

namespace qor::process_memory_manager {

class FactoryOnKernel : public ProcessMemoryFactory {
 public:
  FactoryOnKernel(zym::IServiceLocator* locator, std::function<KernelVersion()> version)
      : ProcessMemoryFactory(locator), m_version(std::move(version)) {}

 protected:
  KernelVersion GetKernelVersion() const override { return m_version(); }

 private:
  const std::function<KernelVersion()> m_version;
};

}  // namespace qor::process_memory_manager
