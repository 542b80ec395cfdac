#include "process_manager/interception/system_events_factory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "process_manager/interception/fake_event_services.h"
#include "process_manager/process/process_description.h"
#include "qor_common/file_io.h"
#include "qor_common/mount_namespace.h"
#include "qor_common/unique_fd.h"
#include "support/fake_services.h"
#include "support/rights.h"
#include "support/unshare_mounts.h"
#include "zym/io.h"
#include "zym/module_counter.h"
#include "zym/utf.h"

namespace qor::process_manager {
namespace {

using test_support::FakeEventInfoProvider;
namespace event_type = system_interceptors::event_type;
constexpr std::uint32_t kExecutable = si_ep::create_process_event::extended_parameters::ExecutableFileIO;

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// A process in a mount namespace of its own, where a file lies that nobody else sees.
class ForeignProcess {
 public:
  static constexpr const char* kContent = "foreign image";

  ForeignProcess() {
    char name[] = "/tmp/foreign_image_XXXXXX";
    m_directory = ::mkdtemp(name);
    int ready[2];
    int end[2];
    if (::pipe2(ready, O_CLOEXEC) != 0 || ::pipe2(end, O_CLOEXEC) != 0) return;
    m_pid = ::fork();
    if (m_pid == 0) {
      ::close(end[1]);
      Child(ready[1], end[0]);
    }
    ::close(ready[1]);
    ::close(end[0]);
    m_end.Reset(end[1]);
    char byte = 0;
    m_ready = ::read(ready[0], &byte, 1) == 1 && byte == 'y';
    ::close(ready[0]);
  }
  ~ForeignProcess() {
    m_end.Reset();
    if (m_pid > 0) ::waitpid(m_pid, nullptr, 0);
    ::rmdir(m_directory.c_str());
  }
  ForeignProcess(const ForeignProcess&) = delete;
  ForeignProcess& operator=(const ForeignProcess&) = delete;

  bool IsReady() const { return m_ready; }
  PidType Pid() const { return static_cast<PidType>(m_pid); }
  std::string Image() const { return m_directory + "/image"; }
  std::uint64_t Namespace() const {
    struct stat status {};
    return ::stat(("/proc/" + std::to_string(m_pid) + "/ns/mnt").c_str(), &status) == 0 ? status.st_ino : 0;
  }

 private:
  // Says 'y' when the file is there, and waits for the other end to close.
  [[noreturn]] void Child(int ready, int end) const {
    const bool mounted = test_support::UnshareMounts() == nullptr &&
                         ::mount("none", m_directory.c_str(), "tmpfs", 0, nullptr) == 0;
    bool written = false;
    if (const int fd = mounted ? ::open(Image().c_str(), O_CREAT | O_WRONLY, 0600) : -1; fd >= 0)
      written = ::write(fd, kContent, std::strlen(kContent)) > 0 && ::close(fd) == 0;
    const char answer = written ? 'y' : 'n';
    char byte = 0;
    const bool told = ::write(ready, &answer, 1) == 1 && ::read(end, &byte, 1) == 0;
    ::_exit(told ? 0 : 1);
  }

  std::string m_directory;
  pid_t m_pid = -1;
  bool m_ready = false;
  UniqueFd m_end;
};

class SystemEventsFactoryTest : public testing::Test {
 protected:
  SystemEventsFactoryTest() {
    m_host.locator->Add(m_provider);
    m_features->values[kOpenIOFromForeignMountNamespace] = true;
  }
  ~SystemEventsFactoryTest() override {
    m_factory = {};
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objectsBefore);
    EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore);
  }

  zym::intrusive_ptr<ISystemEvent> Create(process_cache::EventInfo info, int fd = -1,
                                          std::uint32_t type = event_type::kCreateProcess) {
    if (!m_factory) m_factory = zym::CreateObject<SystemEventsFactory>(m_host.locator.get());
    return m_factory->Create(type, info, {}, fd);
  }

  process_cache::EventInfo InfoOf(const ForeignProcess& process) {
    process_cache::EventInfo info;
    info.info.pid = process.Pid();
    info.info.imagePath = *zym::Utf8ToUtf16(process.Image());
    info.info.mountNamespaceId = process.Namespace();
    return info;
  }

  // The stream under the event's one property; null when there is none.
  static zym::intrusive_ptr<zym::IIO> ImageOf(const zym::intrusive_ptr<ISystemEvent>& event) {
    zym::intrusive_ptr<zym::IPropertyBag> bag;
    zym::types::variant_t value;
    zym::intrusive_ptr<zym::IIO> io;
    if (zym::QueryInterface(event, bag.Ref()) != zym::ZYM_OK || bag->Get(kExecutable, &value) != zym::ZYM_OK)
      return io;
    const auto* const object = value.If<zym::objptr_t<zym::IObject>>();
    EXPECT_NE(object, nullptr);
    if (object != nullptr) {
      EXPECT_EQ(zym::QueryInterface(*object, io.Ref()), zym::ZYM_OK);
    }
    return io;
  }

  static int DescriptorOf(const zym::intrusive_ptr<zym::IIO>& io) {
    zym::intrusive_ptr<IFileDescriptor> descriptor;
    int fd = -1;
    EXPECT_EQ(zym::QueryInterface(io, descriptor.Ref()), zym::ZYM_OK);
    EXPECT_EQ(descriptor->GetDescriptor(fd), zym::ZYM_OK);
    return fd;
  }

  static std::string Read(const zym::intrusive_ptr<zym::IIO>& io) {
    char text[64] = {};
    std::uint32_t done = 0;
    EXPECT_EQ(io->Read(text, sizeof(text), done), zym::ZYM_OK);
    return {text, done};
  }

  bool TriedToOpen() {
    return m_host.tracer->Has(zym::trace::kCall,
                              "SystemEventsFactory::Create: Opening process image in its mount namespace");
  }
  bool FailedToOpen() {
    return m_host.tracer->Has(
        zym::trace::kFailure,
        "SystemEventsFactory::Create: Failed to open process image in its mount namespace");
  }

  test_support::FakeHost m_host;
  zym::intrusive_ptr<FakeEventInfoProvider> m_provider = zym::CreateObject<FakeEventInfoProvider>();
  zym::intrusive_ptr<test_support::FakeFeatureLookup> m_features =
      zym::CreateObject<test_support::FakeFeatureLookup>();
  const std::int32_t m_objectsBefore = zym::ModuleObjectCounter::Value();
  const std::ptrdiff_t m_descriptorsBefore = OpenDescriptors();
  zym::intrusive_ptr<SystemEventsFactory> m_factory;
};

TEST_F(SystemEventsFactoryTest, EachOfItsServicesIsRequired) {
  for (const zym::iid_t iid : {0x6ef3329bU, 0x2b6ab0fbU, 0x79864d30U, 0x97074f39U, 0xa26c8413U}) {
    test_support::FakeHost host;
    host.locator->Add(m_provider);
    EXPECT_NO_THROW(static_cast<void>(zym::CreateObject<SystemEventsFactory>(host.locator.get())));
    host.locator->FailWith(iid, zym::ZYM_E_ACCESS_DENIED);
    EXPECT_ANY_THROW(static_cast<void>(zym::CreateObject<SystemEventsFactory>(host.locator.get())))
        << std::hex << iid;
  }
}

TEST_F(SystemEventsFactoryTest, MissingStartupDataIsSaid) {
  m_host.locator->FailWith(IStartupDataProvider::kIid, zym::ZYM_E_ACCESS_DENIED);
  try {
    const auto factory = zym::CreateObject<SystemEventsFactory>(m_host.locator.get());
    FAIL() << "there is a factory";
  } catch (const zym::CheckResultFailedException& e) {
    EXPECT_EQ(e.Result(), zym::ZYM_E_ACCESS_DENIED);
    EXPECT_NE(std::string(e.what()).find("Cannot get IStartupDataProvider interface"), std::string::npos);
  }
}

TEST_F(SystemEventsFactoryTest, TheEventIsMadeOfTheRecordWhichIsTakenOver) {
  process_cache::EventInfo info;
  info.info.pid = 4001;
  info.info.creatorPid = 4002;
  info.info.imagePath = u"/usr/bin/a program with a long name";
  const auto factory = zym::CreateObject<SystemEventsFactory>(m_host.locator.get());
  const auto event = factory->Create(event_type::kExitProcess, info, {}, -1);
  EXPECT_EQ(event->GetType(), event_type::kExitProcess);
  EXPECT_EQ(event->GetPid(), 4001U);
  EXPECT_EQ(event->GetCpid(), 4002U);
  EXPECT_TRUE(info.info.imagePath.empty());
}

TEST_F(SystemEventsFactoryTest, TheCreationIsTracedWithItsKind) {
  process_cache::EventInfo info;
  info.info.pid = 4001;
  const std::string process = DescribeProcess(info.info, m_host.categoryFilter.get());
  Create(info);
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kCall, "SystemEventsFactory::process event: " + process));
  info.isFork = true;
  Create(info);
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kCall, "SystemEventsFactory::process fork event: " + process));
  info.isFake = true;
  Create(info);
  EXPECT_TRUE(
      m_host.tracer->Has(zym::trace::kCall, "SystemEventsFactory::process fork fake event: " + process));
}

// --- The image. ---

TEST_F(SystemEventsFactoryTest, WithoutADescriptorThereIsNoImage) {
  EXPECT_FALSE(ImageOf(Create({})));
}

TEST_F(SystemEventsFactoryTest, TheEventOwnsACopyOfTheDescriptor) {
  UniqueFd fd(::open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
  auto event = Create({}, fd.Get());
  EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore + 2);
  const int number = fd.Get();
  fd.Reset();
  auto image = ImageOf(event);
  ASSERT_TRUE(image);
  EXPECT_FALSE(Read(image).empty());
  EXPECT_NE(DescriptorOf(image), number);
  EXPECT_NE(::fcntl(DescriptorOf(image), F_GETFD) & FD_CLOEXEC, 0) << "no child inherits it";
  image = {};
  event = {};
  EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore) << "the image lives as long as the event";
}

TEST_F(SystemEventsFactoryTest, ADescriptorThatCannotBeDuplicatedIsTracedAndTheEventIsMade) {
  const auto event = Create({}, 1'000'000);
  EXPECT_TRUE(event);
  EXPECT_FALSE(ImageOf(event));
  EXPECT_TRUE(m_host.tracer->Has(
      zym::trace::kFailure,
      "SystemEventsFactory::Create: Failed to duplicate the descriptor of the image: 0x80010101"));
}

TEST_F(SystemEventsFactoryTest, AnImageThatCannotBePutIsTracedAndTheEventIsMade) {
  Create({});                                                              // the factory has its services now
  m_host.locator->FailWith(zym::ITracer::kIid, zym::ZYM_E_ACCESS_DENIED);  // which a stream asks for
  const UniqueFd fd(::open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
  const auto event = Create({}, fd.Get());
  EXPECT_TRUE(event);
  EXPECT_FALSE(ImageOf(event));
  EXPECT_TRUE(m_host.tracer->Has(zym::trace::kFailure, "Failed to put qor::IO"));
  EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore + 1) << "the copy was closed";
}

TEST_F(SystemEventsFactoryTest, TheListenerIsAskedWithTheDescriptorOfTheImage) {
  const auto listener = zym::CreateObject<test_support::FakeExecListener>();
  const UniqueFd fd(::open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
  process_cache::EventInfo info;
  info.info.state = kTerminated;
  m_factory = zym::CreateObject<SystemEventsFactory>(m_host.locator.get());
  const auto event = m_factory->Create(event_type::kCreateProcess, info, listener, fd.Get());
  EXPECT_TRUE(event->Complete());
  ASSERT_EQ(listener->questions.size(), 1U);
  EXPECT_EQ(listener->questions[0].fd, static_cast<std::uint32_t>(DescriptorOf(ImageOf(event))));
}

// --- Images of other mount namespaces. ---

class ForeignImageTest : public SystemEventsFactoryTest {
 protected:
  void SetUp() override {
    SKIP_IF(test_support::MissingMountRights());
    m_process = std::make_unique<ForeignProcess>();
    ASSERT_TRUE(m_process->IsReady()) << "no file could be mounted in another mount namespace";
    ASSERT_TRUE(tools::IsForeignNamespace(m_process->Namespace()));
    m_host.locator->Add(m_features);
  }
  void TearDown() override {
    m_host.locator->Remove(IFeatureLookup::kIid);
    m_process.reset();
  }

  std::unique_ptr<ForeignProcess> m_process;
};

TEST_F(ForeignImageTest, TheImageIsOpenedThroughTheRootOfItsProcess) {
  ASSERT_NE(::access(m_process->Image().c_str(), F_OK), 0) << "it isn't seen from here";
  auto event = Create(InfoOf(*m_process));
  EXPECT_TRUE(TriedToOpen());
  EXPECT_FALSE(FailedToOpen());
  const auto image = ImageOf(event);
  ASSERT_TRUE(image);
  EXPECT_EQ(Read(image), ForeignProcess::kContent);
  // The pipe to the process, the image and its directory.
  EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore + 3);
}

TEST_F(ForeignImageTest, ADescriptorThatIsGivenStaysTheImageAndOnlyItsDirectoryIsOpened) {
  const UniqueFd fd(::open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
  auto event = Create(InfoOf(*m_process), fd.Get());
  EXPECT_TRUE(TriedToOpen());
  EXPECT_FALSE(FailedToOpen());
  const auto image = ImageOf(event);
  ASSERT_TRUE(image);
  EXPECT_NE(Read(image), ForeignProcess::kContent);
  EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore + 4);
}

TEST_F(ForeignImageTest, AnImageThatCannotBeOpenedIsTracedAndTheEventGoesOnWithoutOne) {
  process_cache::EventInfo info = InfoOf(*m_process);
  info.info.imagePath += u".gone";
  const auto event = Create(info);
  EXPECT_TRUE(event);
  EXPECT_TRUE(FailedToOpen());
  EXPECT_FALSE(ImageOf(event));
  EXPECT_EQ(OpenDescriptors(), m_descriptorsBefore + 1) << "its directory was closed";
}

TEST_F(ForeignImageTest, AProcessInTheOwnNamespaceGetsNoForeignOpenWhateverTheSwitchSays) {
  process_cache::EventInfo info = InfoOf(*m_process);
  info.info.mountNamespaceId = tools::GetOwnNamespaceId();
  EXPECT_FALSE(ImageOf(Create(info)));
  EXPECT_FALSE(TriedToOpen());
}

TEST_F(ForeignImageTest, AProcessOfWhichNoNamespaceIsKnownGetsNoForeignOpen) {
  process_cache::EventInfo info = InfoOf(*m_process);
  info.info.mountNamespaceId = kNoMountNamespace;
  Create(info);
  EXPECT_FALSE(TriedToOpen());
}

TEST_F(ForeignImageTest, AProcessWithoutABackingImageOrAnEndGetsNoForeignOpen) {
  process_cache::EventInfo info = InfoOf(*m_process);
  Create(info, -1, event_type::kExitProcess);
  EXPECT_FALSE(TriedToOpen());
  info.info.flags = kNoBackingImage;
  Create(info);
  EXPECT_FALSE(TriedToOpen());
}

TEST(ForeignImageSwitch, HasTheHostsName) {
  EXPECT_STREQ(kOpenIOFromForeignMountNamespace, "qor.process_manager.OpenIOFromForeignMountNamespace");
}

TEST_F(ForeignImageTest, WithoutTheSwitchOrWithItOffThereIsNoForeignOpen) {
  m_features->values[kOpenIOFromForeignMountNamespace] = false;
  Create(InfoOf(*m_process));
  m_features->values.clear();
  Create(InfoOf(*m_process));
  m_host.locator->Remove(IFeatureLookup::kIid);
  Create(InfoOf(*m_process));
  EXPECT_FALSE(TriedToOpen());
}

}  // namespace
}  // namespace qor::process_manager
