#include "host/service_locator.h"

#include <utility>

namespace pmhost {

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

void ServiceLocator::Add(zym::iid_t iid, zym::intrusive_ptr<zym::IObject> service) {
  const std::scoped_lock lock(m_mutex);
  m_services[iid] = std::move(service);
}

void ServiceLocator::Clear() {
  std::map<zym::iid_t, zym::intrusive_ptr<zym::IObject>> services;
  {
    const std::scoped_lock lock(m_mutex);
    services.swap(m_services);
  }
  // Released here, with no lock held: a service may come back while it ends.
}

}  // namespace pmhost
