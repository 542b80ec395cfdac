// The services that a host offers to the module, by interface id.
#pragma once

#include <map>
#include <mutex>
#include <type_traits>
#include <utility>

#include "zym/object.h"

namespace host_kit {

// Keeps its services alive until they are removed. Any thread.
class ServiceLocator : public zym::object::Ifaces<zym::IServiceLocator>, public zym::NonCopyable {
 public:
  // ZYM_E_NO_INTERFACE: no service is offered under `iid`, or the key isn't 0.
  zym::result_t GetInterface(zym::iid_t iid, std::uint32_t serviceKey, void** out) override;

  // Offers a service under the id of its interface I, in place of one that was offered before:
  // locator.Add<zym::ITracer>(tracer).
  template <class I>
  void Add(std::type_identity_t<zym::intrusive_ptr<I>> service) {
    Add(I::kIid, std::move(service));
  }
  // The same; QueryInterface of `service` must know `iid`.
  void Add(zym::iid_t iid, zym::intrusive_ptr<zym::IObject> service);

  // Objects that have taken the service keep it.
  void Remove(zym::iid_t iid);
  // Removes every service. A host does this before it lets the module go: some services hold the locator, and
  // some are objects of the module.
  void Clear();

  [[nodiscard]] bool Has(zym::iid_t iid) const;

 private:
  mutable std::mutex m_mutex;  // guards m_services
  std::map<zym::iid_t, zym::intrusive_ptr<zym::IObject>> m_services;
};

}  // namespace host_kit
