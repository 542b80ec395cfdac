// Event of a process: a new image, or the end of one.
#pragma once

#include <memory>

#include "process_manager/interception/event_context.h"
#include "process_manager/process_cache.h"
#include "process_manager/services/exec_listener.h"
#include "process_manager/system_event.h"
#include "qor_common/unique_fd.h"
#include "zym/object.h"
#include "zym/property_bag.h"

namespace qor::process_manager {

// The descriptors of the image of a new process. Both may be absent.
struct ImageDescriptors {
  UniqueFd file;
  UniqueFd directory;  // the directory of the image, for one in another mount namespace
};

// Made on a source's thread, completed once on the dispatcher's, immutable from then on. A failure to enrich
// it never loses it: the descriptor, the late path and the statistics are all optional.
class Event : public zym::object::Ifaces<ISystemEvent, zym::PropertyBagImpl<zym::IPropertyBag>> {
 public:
  // A process under both of its names.
  struct Subject {
    PidType pid;
    UniquePidType uniquePid;
  };

  // Takes the contents of `info`. `listener` may be null.
  Event(std::shared_ptr<const EventContext> context, std::uint32_t type, process_cache::EventInfo&& info,
        const zym::intrusive_ptr<IExecListener>& listener, ImageDescriptors descriptors);

  zym::result_t GetEventId(const std::uint64_t** id) override;
  zym::result_t GetParam(std::uint32_t param, zym::types::range_t<const std::uint8_t*>* value) override;
  std::uint32_t GetType() override { return m_type; }
  // Both keep what the record said at the creation of the event: the dispatcher counts by them.
  PidType GetPid() override { return m_pid; }
  PidType GetCpid() override { return m_cpid; }
  bool IsFake() override { return m_info.isFake; }
  // False also for a type that isn't one of a process.
  bool Complete() override;
  zym::types::string16_t ToString() override;

  // Who acted: the process that ended, or the one that created the new image.
  [[nodiscard]] Subject GetSubject() const noexcept { return m_subject; }

 private:
  zym::ITracer* GetTracer() const { return m_context->GetTracer(); }

  void PutImage(ImageDescriptors descriptors) noexcept;
  bool OnCreateProcess();
  void CollectStatistics() noexcept;
  bool CompleteFromListener() noexcept;
  void TakeExecStrings(const zym::types::vector_t<zym::types::string_t>& strings);

  const std::shared_ptr<const EventContext> m_context;
  process_cache::EventInfo m_info;
  const std::uint32_t m_type;
  const PidType m_pid;
  const PidType m_cpid;
  const Subject m_subject;
  const std::uint32_t m_fromExec;  // 1 unless the event comes from a fork
  int m_imageFd = -1;              // owned by the stream in the property bag
  zym::intrusive_ptr<IExecInformationSource> m_execInformationSource;
};

}  // namespace qor::process_manager
