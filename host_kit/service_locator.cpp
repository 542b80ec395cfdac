#include "host_kit/service_locator.h"

#include <utility>

namespace host_kit {

zym::result_t ServiceLocator::GetInterface(zym::iid_t iid, std::uint32_t serviceKey, void** out) {
  zym::intrusive_ptr<zym::IObject> service;
  {
    const std::scoped_lock lock(m_mutex);
    const auto found = m_services.find(iid);
    if (found == m_services.end() || serviceKey != 0) return zym::ZYM_E_NO_INTERFACE;
    service = found->second;
  }
  return service->QueryInterface(iid, out);
}

// In all three a service that goes is released with no lock held: it may ask for another one while it ends.

void ServiceLocator::Add(zym::iid_t iid, zym::intrusive_ptr<zym::IObject> service) {
  const std::scoped_lock lock(m_mutex);
  std::swap(m_services[iid], service);
}

void ServiceLocator::Remove(zym::iid_t iid) {
  decltype(m_services)::node_type removed;
  const std::scoped_lock lock(m_mutex);
  removed = m_services.extract(iid);
}

void ServiceLocator::Clear() {
  decltype(m_services) removed;
  const std::scoped_lock lock(m_mutex);
  removed.swap(m_services);
}

bool ServiceLocator::Has(zym::iid_t iid) const {
  const std::scoped_lock lock(m_mutex);
  return m_services.contains(iid);
}

}  // namespace host_kit
