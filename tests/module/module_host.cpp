#include "module/module_host.h"

#include <cstring>

#include "support/threads.h"
#include "zym/io.h"
#include "zym/property_bag.h"

namespace test_support {
namespace {

namespace event_param = system_interceptors::event_param;

template <class T>
T Number(qor::process_manager::ISystemEvent& event, std::uint32_t param) {
  zym::types::range_t<const std::uint8_t*> view;
  T value{};
  if (event.GetParam(param, &view) == zym::ZYM_OK) std::memcpy(&value, view.begin(), sizeof(value));
  return value;
}

std::optional<std::u16string> Text(qor::process_manager::ISystemEvent& event, std::uint32_t param) {
  zym::types::range_t<const std::uint8_t*> view;
  if (event.GetParam(param, &view) != zym::ZYM_OK) return std::nullopt;
  std::u16string text(view.size() / sizeof(char16_t), u'\0');
  std::memcpy(text.data(), view.begin(), view.size());
  return text;
}

// The first bytes of the executable that the event carries; empty when it carries none.
std::string ImageOf(qor::process_manager::ISystemEvent& event) {
  constexpr zym::propid_t kExecutable = si_ep::create_process_event::extended_parameters::ExecutableFileIO;
  zym::intrusive_ptr<zym::IPropertyBag> bag;
  zym::types::variant_t value;
  if (event.QueryInterface(zym::IPropertyBag::kIid, reinterpret_cast<void**>(bag.Ref())) != zym::ZYM_OK ||
      bag->Get(kExecutable, &value) != zym::ZYM_OK)
    return {};
  const auto* const object = value.If<zym::objptr_t<zym::IObject>>();
  zym::intrusive_ptr<zym::IIO> io;
  if (object == nullptr || zym::QueryInterface(*object, io.Ref()) != zym::ZYM_OK) return "no stream";
  char bytes[4] = {};
  std::uint32_t count = 0;
  if (io->Read(bytes, sizeof(bytes), count) != zym::ZYM_OK) return "not to be read";
  return {bytes, count};
}

zym::intrusive_ptr<FakeLocator> ServicesOf(const FakeHost& host,
                                           const zym::intrusive_ptr<zym::ITracer>& tracer) {
  if (tracer) host.locator->Add(tracer);
  return host.locator;
}

}  // namespace

void RecordingHandler::OnEvent(qor::process_manager::ISystemEvent* event, std::uint32_t) {
  SeenEvent seen;
  const std::uint64_t* sequence = nullptr;
  event->GetEventId(&sequence);
  seen.type = event->GetType();
  seen.sequence = *sequence;
  seen.pid = Number<std::uint32_t>(*event, event_param::kPid);
  seen.parentPid = Number<std::uint32_t>(*event, event_param::kParentPid);
  seen.creatorPid = event->GetCpid();
  seen.uniquePid = Number<std::uint64_t>(*event, event_param::kUniquePid);
  seen.fromExec = Number<std::uint32_t>(*event, event_param::kFromExec);
  seen.state = Number<std::uint32_t>(*event, event_param::kState);
  seen.imagePath = *Text(*event, event_param::kImagePath);
  seen.commandLine = Text(*event, event_param::kCommandLine);
  zym::types::range_t<const std::uint8_t*> view;
  if (event->GetParam(event_param::kRealUserId, &view) == zym::ZYM_OK)
    seen.realUserId = Number<std::uint32_t>(*event, event_param::kRealUserId);
  seen.mountNamespace = Number<std::uint64_t>(*event, event_param::kMountNamespaceId);
  seen.image = ImageOf(*event);
  const std::scoped_lock lock(m_mutex);
  m_events.push_back(std::move(seen));
  m_arrived.notify_all();
}

std::vector<SeenEvent> RecordingHandler::Events() const {
  const std::scoped_lock lock(m_mutex);
  return m_events;
}

std::optional<SeenEvent> RecordingHandler::WaitFor(const std::function<bool(const SeenEvent&)>& fits) const {
  std::unique_lock lock(m_mutex);
  std::optional<SeenEvent> found;
  m_arrived.wait_for(lock, kDeadline, [&] {
    for (const SeenEvent& event : m_events)
      if (fits(event)) found = event;
    return found.has_value();
  });
  return found;
}

ModuleHost::ModuleHost(const zym::intrusive_ptr<zym::ITracer>& tracer)
    : m_bootstrap(module.Kit(), ServicesOf(host, tracer), {.enumerate = false, .guard = false, .reader = {}}),
      cache(m_bootstrap.GetCache()),
      parser(m_bootstrap.GetParser()),
      settings(m_bootstrap.GetSettings()) {}

}  // namespace test_support
