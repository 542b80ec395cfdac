// A module as an object, and what it is made from.
#pragma once

#include <concepts>
#include <cstdint>
#include <utility>

#include "process_manager/proc_parser.h"
#include "process_manager/process_modules.h"
#include "process_manager/types.h"
#include "zym/object.h"
#include "zym/service_provider.h"

namespace qor::process_manager {

using system_interceptors::process_manager::IProcessModule;
using system_interceptors::process_manager::ProcessModuleInformation;

// What a provider finds out about a module, once, when it is made.
struct ProcessModuleFacts {
  NativePath path;  // empty for memory without a file
  std::uint64_t base = 0;
  std::uint64_t size = 0;  // bytes
};

// The module is a mapping that an enumerator came to.
class FromEnumeratorModuleInfoProvider {
 public:
  explicit FromEnumeratorModuleInfoProvider(const procfs::MapsEntry& entry);
  [[nodiscard]] const ProcessModuleFacts& Facts() const noexcept { return m_facts; }

 private:
  ProcessModuleFacts m_facts;
};

// The module is the mapping that begins at `address`. Throws zym::CheckResultFailedException when the
// mappings can't be read, std::out_of_range when none begins there.
class ByAddressModuleInfoProvider {
 public:
  ByAddressModuleInfoProvider(zym::IServiceLocator* locator, PidType pid, std::uint64_t address);
  [[nodiscard]] const ProcessModuleFacts& Facts() const noexcept { return m_facts; }

 private:
  ProcessModuleFacts m_facts;
};

// The operations of a module over the facts of whatever provider it has. Never changes: any thread.
class ProcessModuleInfoBase : public zym::object::Ifaces<IProcessModule>,
                              public zym::InterfaceProvider<zym::ITracer>,
                              public zym::NonCopyable {
 public:
  zym::result_t GetImagePath(zym::types::string16_t& path) const override;
  zym::result_t GetBaseAddress(std::uint64_t& address) const override;
  zym::result_t GetSize(std::uint64_t& size) const override;
  zym::result_t GetInformation(ProcessModuleInformation& information) const override;

 protected:
  explicit ProcessModuleInfoBase(zym::intrusive_ptr<zym::ITracer> tracer)
      : InterfaceProvider(std::move(tracer)) {}
  ~ProcessModuleInfoBase() = default;

  [[nodiscard]] virtual const ProcessModuleFacts& Facts() const noexcept = 0;
};

namespace detail {

// The object that is handed out: the operations of Base, which implement Interface, over a Provider of its
// own, made from all arguments but the first.
template <class Provider, class Base, class Interface>
class ObjectInfo : public Base {
 public:
  template <class... Args>
  explicit ObjectInfo(zym::intrusive_ptr<zym::ITracer> tracer, Args&&... args)
      : Base(std::move(tracer)), m_provider(std::forward<Args>(args)...) {
    static_assert(std::derived_from<Base, Interface>);
  }

 protected:
  ~ObjectInfo() = default;

 private:
  [[nodiscard]] const ProcessModuleFacts& Facts() const noexcept override { return m_provider.Facts(); }

  const Provider m_provider;
};

}  // namespace detail
}  // namespace qor::process_manager
