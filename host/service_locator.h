// What the host offers, by interface id.
#pragma once

#include <map>
#include <mutex>

#include "zym/object.h"

namespace pmhost {

class ServiceLocator : public zym::object::Ifaces<zym::IServiceLocator>, public zym::NonCopyable {
 public:
  // ZYM_E_NO_INTERFACE: no such service.
  zym::result_t GetInterface(zym::iid_t iid, std::uint32_t serviceKey, void** out) override;

  // Offers a service under its interface's id.
  template <class I>
  void Add(const zym::intrusive_ptr<I>& service) {
    Add(I::kIid, zym::intrusive_ptr<zym::IObject>(service.get()));
  }
  // Offers one of the interfaces of an object.
  template <class I, class T>
  void Add(const zym::intrusive_ptr<T>& object) {
    Add(I::kIid, zym::intrusive_ptr<zym::IObject>(static_cast<I*>(object.get())));
  }

  // Drops every service. Some hold the locator: a host does this before it lets the module go.
  void Clear();

 private:
  void Add(zym::iid_t iid, zym::intrusive_ptr<zym::IObject> service);

  std::mutex m_mutex;  // guards m_services
  std::map<zym::iid_t, zym::intrusive_ptr<zym::IObject>> m_services;
};

}  // namespace pmhost
