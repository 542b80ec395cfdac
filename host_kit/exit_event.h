// Exit event that the kit makes itself, for an end that no source reports.
#pragma once

#include "process_manager/process_cache.h"
#include "process_manager/system_event.h"
#include "zym/object.h"

namespace host_kit {

// Has the parameters of the module's own exit events, and nothing else of them: no zym::IPropertyBag.
class ExitEvent : public zym::object::Ifaces<qor::process_manager::ISystemEvent> {
 public:
  // `cache`: whoever made `exit`, and hears of it once more when the event is completed.
  ExitEvent(zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> cache,
            qor::process_manager::process_cache::EventInfo&& exit);

  zym::result_t GetEventId(const std::uint64_t** id) override;
  zym::result_t GetParam(std::uint32_t param, zym::types::range_t<const std::uint8_t*>* value) override;
  std::uint32_t GetType() override { return system_interceptors::event_type::kExitProcess; }
  qor::PidType GetPid() override { return m_exit.info.pid; }
  qor::PidType GetCpid() override { return m_exit.info.creatorPid; }
  bool IsFake() override { return m_exit.isFake; }
  bool Complete() override;
  // The type, the number, the ids and the path.
  zym::types::string16_t ToString() override;

 private:
  const zym::intrusive_ptr<qor::process_manager::IEventInfoProvider> m_cache;
  qor::process_manager::process_cache::EventInfo m_exit;
};

}  // namespace host_kit
