#include "qor_common/os_info.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qor_common/unique_fd.h"
#include "support/fake_services.h"
#include "support/temp_directory.h"
#include "zym/module_counter.h"

namespace qor {
namespace {

using test_support::RecordingTracer;
using test_support::TempDirectory;

constexpr std::string_view kOsRelease =
    "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n";
constexpr std::string_view kLsbRelease =
    "DISTRIB_ID=Ubuntu\nDISTRIB_RELEASE=22.04\nDISTRIB_DESCRIPTION=\"Ubuntu 22.04.3 LTS\"\n";
constexpr std::string_view kReleaseLine = "CentOS Linux release 7.9.2009 (Core)\n";
constexpr std::string_view kSuse = "SUSE Linux Enterprise Server 11 (x86_64)\nVERSION = 11\nPATCHLEVEL = 4\n";

struct Row {
  const char* path;
  std::string_view content;  // that its parser takes; empty: there is no parser
};

// The search order.
const std::vector<Row> kRows = {
    {"/etc/os-release", kOsRelease},
    {"/etc/lsb-release", kLsbRelease},
    {"/etc/system-release", kReleaseLine},
    {"/etc/SuSE-release", kSuse},
    {"/etc/gentoo-release", kReleaseLine},
    {"/etc/centos-release", kReleaseLine},
    {"/etc/redhat-release", kReleaseLine},
    {"/etc/oracle-release", {}},
    {"/etc/altlinux-release", {}},
    {"/etc/redos-release", {}},
    {"/etc/fedora-release", {}},
    {"/etc/rosa-release", {}},
    {"/etc/goslinux-release", {}},
    {"/etc/plesk-release", {}},
    {"/etc/sangoma-release", {}},
    {"/etc/eyesofnetwork-release", {}},
    {"/etc/novell-release", {}},
    {"/etc/initrd-release", {}},
    {"/etc/iredmail-release", {}},
    {"/etc/spacewalk-release", {}},
    {"/etc/tenable-release", {}},
    {"/etc/cloud-release", {}},
    {"/etc/cp-release", {}},
    {"/etc/mageia-release", {}},
    {"/etc/debian_version", {}},
    {"/etc/arch-release", {}},
    {"/etc/slackware-release", {}},
    {"/etc/slackware-version", {}},
};

std::string UnameText() {
  utsname uname{};
  EXPECT_EQ(::uname(&uname), 0);
  return std::string(uname.sysname) + " " + uname.version + " " + uname.machine;
}

// The files of a directory that were opened between construction and the question, as the kernel saw it.
class OpenedFiles {
 public:
  explicit OpenedFiles(const std::string& directory) : m_inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_GE(::inotify_add_watch(m_inotify.Get(), directory.c_str(), IN_OPEN), 0) << std::strerror(errno);
  }

  // The kernel queues an event before the open returns: nothing is still under way.
  std::vector<std::string> Take() const {
    std::vector<std::string> names;
    alignas(inotify_event) char buffer[16384];
    ssize_t length = 0;
    while ((length = ::read(m_inotify.Get(), buffer, sizeof(buffer))) > 0) {
      for (ssize_t at = 0; at < length;) {
        const auto* const event = reinterpret_cast<const inotify_event*>(buffer + at);
        if (event->len > 0) names.emplace_back(event->name);
        at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      }
    }
    return names;
  }

 private:
  UniqueFd m_inotify;
};

// Runs `work` on a thread for which the kernel answers uname(2) with EIO. False: the kernel has no seccomp
// filters.
bool RunWithoutUname(const std::function<void()>& work) {
  bool filtered = false;
  std::thread([&] {
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_uname, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{.len = std::size(code), .filter = code};
    filtered = ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
               ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
    if (filtered) work();
  }).join();
  return filtered;
}

class OsInfoTest : public testing::Test {
 protected:
  ~OsInfoTest() override {
    m_tracer.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  OsInfo Get() {
    OsInfo info;
    EXPECT_EQ(GetOsInfo(m_tracer.get(), info, m_root.Path()), zym::ZYM_OK);
    return info;
  }
  std::string PathOf(std::string_view file) const { return m_root.Path() + std::string(file); }
  void ExpectUname(const OsInfo& info) const {
    EXPECT_EQ(info.name, UnameText());
    EXPECT_EQ(info.version, "");
    EXPECT_EQ(info.description, "");
    EXPECT_TRUE(m_tracer->Has(800, "Cannot get OS info from config file, use ::uname"));
  }

  const decltype(zym::ModuleObjectCounter::Value()) m_objects = zym::ModuleObjectCounter::Value();
  TempDirectory m_root;
  zym::intrusive_ptr<RecordingTracer> m_tracer = zym::CreateObject<RecordingTracer>();
};

TEST_F(OsInfoTest, WithAValidOsReleaseNoOtherFileIsOpened) {
  for (const Row& row : kRows) m_root.Write(row.path, row.content.empty() ? "x" : row.content);
  const OpenedFiles opened(PathOf("/etc"));
  const OsInfo info = Get();
  EXPECT_EQ(opened.Take(), std::vector<std::string>{"os-release"});
  EXPECT_EQ(info.name, "\"Debian GNU/Linux\"");
  EXPECT_EQ(info.version, "\"12\"");
  EXPECT_EQ(info.description, "\"Debian GNU/Linux 12 (bookworm)\"");
  EXPECT_TRUE(m_tracer->Has(800, "File '" + PathOf("/etc/os-release") + "' was successfully parsed"));
  EXPECT_EQ(m_tracer->Records().back().text, "GetOsInfo: osName:\"Debian GNU/Linux\", osVersion:\"12\"");
}

TEST_F(OsInfoTest, TheFilesAreTriedInTheirFixedOrderAndEachEmptyOneGetsItsTrace) {
  std::vector<std::string> expected;
  std::vector<std::string> names;
  for (const Row& row : kRows) {
    m_root.Write(row.path, "");
    expected.push_back("Unexpected empty file '" + PathOf(row.path) + "'");
    names.push_back(std::string(row.path).substr(std::strlen("/etc/")));
  }
  const OpenedFiles opened(PathOf("/etc"));
  ExpectUname(Get());
  EXPECT_EQ(opened.Take(), names);
  std::vector<std::string> warnings;
  for (const auto& record : m_tracer->Records())
    if (record.level == 500) warnings.push_back(record.text);
  EXPECT_EQ(warnings, expected);
}

TEST_F(OsInfoTest, EachRowHasItsParserOrNone) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.path);
    m_tracer->Clear();
    const std::string path = m_root.Write(row.path, row.content.empty() ? kReleaseLine : row.content);
    const OsInfo info = Get();
    if (row.content.empty()) {
      ExpectUname(info);
      EXPECT_TRUE(m_tracer->Has(800, "File '" + path + "' was found but we do not have the parser for it"));
    } else {
      EXPECT_NE(info.name, UnameText());
      EXPECT_TRUE(m_tracer->Has(800, "File '" + path + "' was successfully parsed"));
      EXPECT_FALSE(m_tracer->Has("::uname"));
    }
    std::filesystem::remove(path);
  }
}

TEST_F(OsInfoTest, DebianVersionAloneGivesTheTraceWithoutAParserAndThenUname) {
  const std::string path = m_root.Write("/etc/debian_version", "12.4\n");
  ExpectUname(Get());
  EXPECT_TRUE(m_tracer->Has(800, "File '" + path + "' was found but we do not have the parser for it"));
  EXPECT_EQ(m_tracer->Records().back().text, "GetOsInfo: osName:" + UnameText() + ", osVersion:");
}

TEST_F(OsInfoTest, AnEmptyOsReleaseIsTracedAndLsbReleaseIsTried) {
  const std::string path = m_root.Write("/etc/os-release", "");
  m_root.Write("/etc/lsb-release", kLsbRelease);
  const OsInfo info = Get();
  EXPECT_TRUE(m_tracer->Has(500, "Unexpected empty file '" + path + "'"));
  EXPECT_EQ(info.name, "Ubuntu");
  EXPECT_EQ(info.version, "22.04");
  EXPECT_EQ(info.description, "\"Ubuntu 22.04.3 LTS\"");
}

TEST_F(OsInfoTest, AnAbsentFileIsTracedWithTheError) {
  Get();
  EXPECT_TRUE(m_tracer->Has(
      800, "Fail to read file '" + PathOf("/etc/os-release") + "': error: No such file or directory"));
}

TEST_F(OsInfoTest, AFileThatCannotBeParsedIsTracedAndTheSearchGoesOn) {
  const std::string path = m_root.Write("/etc/os-release", "no key here\n");
  m_root.Write("/etc/centos-release", kReleaseLine);
  EXPECT_EQ(Get().name, "CentOS Linux");
  EXPECT_TRUE(m_tracer->Has(800, "Cannot parse file '" + path + "'"));
  EXPECT_TRUE(m_tracer->Has(300, "'=' character not found in line")) << "why is traced too";
}

TEST_F(OsInfoTest, ACentosReleaseGivesAVersionWithoutItsLineFeed) {
  m_root.Write("/etc/centos-release", kReleaseLine);
  const OsInfo info = Get();
  EXPECT_EQ(info.name, "CentOS Linux");
  EXPECT_EQ(info.version, "7.9.2009 (Core)");
  EXPECT_EQ(info.description, kReleaseLine);
}

TEST_F(OsInfoTest, AFailedParserLeavesNothingBehind) {
  m_root.Write("/etc/os-release", "NAME=Half\nVERSION_ID=1\n");
  ExpectUname(Get());
}

TEST_F(OsInfoTest, WorksWithoutATracer) {
  m_root.Write("/etc/os-release", kOsRelease);
  OsInfo info;
  EXPECT_EQ(GetOsInfo(nullptr, info, m_root.Path()), zym::ZYM_OK);
  EXPECT_EQ(info.version, "\"12\"");
  EXPECT_FALSE(IsWorkstation(nullptr, m_root.Path()));
}

TEST_F(OsInfoTest, OfThisMachineSaysTheSameAsItsOsReleaseFile) {
  std::ifstream file("/etc/os-release");
  std::string line;
  while (std::getline(file, line) && !line.starts_with("NAME=")) {
  }
  if (line.empty()) GTEST_SKIP() << "this machine has no /etc/os-release";
  OsInfo info;
  ASSERT_EQ(GetOsInfo(m_tracer.get(), info), zym::ZYM_OK);
  EXPECT_EQ(info.name, line.substr(std::strlen("NAME=")));
}

// --- Hostile files. ---

TEST_F(OsInfoTest, HostileFilesEndInTheAnswerOfUname) {
  std::string allBytes(256, '\0');
  for (std::size_t i = 0; i < allBytes.size(); ++i) allBytes[i] = static_cast<char>(i);
  const std::vector<std::string> contents = {
      std::string(1 << 20, 'x'),    std::string(1 << 20, '\0'), std::string(1 << 20, '\n'),
      std::string(1 << 20, '['),    std::string(1 << 20, '='),  allBytes,
      "\xff\xfe\xf0\x28\x8c\x28\n", "[unclosed\nNAME=x\n",      "=value\n",
  };
  for (const std::string& content : contents) {
    m_tracer->Clear();
    for (const Row& row : kRows) m_root.Write(row.path, content);
    ExpectUname(Get());
  }
}

TEST_F(OsInfoTest, AMebibyteInOneLineIsReadWhole) {
  const std::string name(1 << 20, 'n');
  m_root.Write("/etc/os-release", "NAME=" + name + "\nPRETTY_NAME=p\n");
  EXPECT_EQ(Get().name, name);
}

TEST_F(OsInfoTest, ANulInAValueIsPartOfIt) {
  using namespace std::string_literals;
  m_root.Write("/etc/os-release", "NAME=a\0b\nPRETTY_NAME=\xff\n"s);
  const OsInfo info = Get();
  EXPECT_EQ(info.name, "a\0b"s);
  EXPECT_EQ(info.description, "\xff");
}

TEST_F(OsInfoTest, AFileWithoutAnEndIsNotReadForever) {
  std::filesystem::create_directories(PathOf("/etc"));
  std::filesystem::create_symlink("/dev/zero", PathOf("/etc/os-release"));
  ExpectUname(Get());
  EXPECT_TRUE(m_tracer->Has(
      800, "Fail to read file '" + PathOf("/etc/os-release") + "': error: " + std::strerror(EFBIG)));
}

TEST_F(OsInfoTest, AFifoWithoutAWriterIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(m_root.Place("/etc/os-release").c_str(), 0600), 0);
  ExpectUname(Get());
  EXPECT_TRUE(m_tracer->Has(500, "Unexpected empty file"));
}

TEST_F(OsInfoTest, ADirectoryOrALoopInPlaceOfAFileIsAReadFailure) {
  std::filesystem::create_directories(PathOf("/etc/os-release"));
  std::filesystem::create_symlink("lsb-release", PathOf("/etc/lsb-release"));
  ExpectUname(Get());
  EXPECT_TRUE(m_tracer->Has(PathOf("/etc/os-release") + "': error: " + std::strerror(EISDIR)));
  EXPECT_TRUE(m_tracer->Has(PathOf("/etc/lsb-release") + "': error: " + std::strerror(ELOOP)));
}

// --- uname. ---

TEST_F(OsInfoTest, FailsOnlyWhenUnameFails) {
  OsInfo info{.name = "untouched", .version = {}, .description = {}};
  zym::result_t result = zym::ZYM_OK;
  if (!RunWithoutUname([&] { result = GetOsInfo(m_tracer.get(), info, m_root.Path()); }))
    GTEST_SKIP() << "the kernel has no seccomp filters to make uname fail with";
  EXPECT_EQ(result, zym::ZYM_E_UNSPECIFIED);
  EXPECT_EQ(info.name, "untouched");
  const std::string failure = m_tracer->Find("::uname(&uname)");
  EXPECT_TRUE(failure.starts_with("qor_common/os_info.cpp:")) << failure;
  EXPECT_TRUE(failure.ends_with(
      "(::uname(&uname) == 0),(bool) failed: result = false Error on call ::uname(): Input/output error"))
      << failure;
}

TEST_F(OsInfoTest, UnameIsNotNeededWhenAFileTells) {
  m_root.Write("/etc/os-release", kOsRelease);
  zym::result_t result = zym::ZYM_E_UNSPECIFIED;
  OsInfo info;
  if (!RunWithoutUname([&] { result = GetOsInfo(m_tracer.get(), info, m_root.Path()); }))
    GTEST_SKIP() << "the kernel has no seccomp filters to make uname fail with";
  EXPECT_EQ(result, zym::ZYM_OK);
}

TEST_F(OsInfoTest, AKernelReleaseThatCannotBeHadIsTracedAndAllFourStayMinusOne) {
  KernelVersion version{.major = 1, .minor = 2, .patch = 3, .build = 4};
  if (!RunWithoutUname([&] { version = GetLinuxKernelRelease(m_tracer.get()); }))
    GTEST_SKIP() << "the kernel has no seccomp filters to make uname fail with";
  EXPECT_EQ(version, KernelVersion());
  EXPECT_TRUE(m_tracer->Has(300, "Error on call ::uname(): Input/output error"));
}

TEST_F(OsInfoTest, TheKernelReleaseIsThatOfUname) {
  utsname uname{};
  ASSERT_EQ(::uname(&uname), 0);
  EXPECT_EQ(GetLinuxKernelRelease(m_tracer.get()), ParseKernelRelease(uname.release));
  EXPECT_GE(GetLinuxKernelRelease(m_tracer.get()).major, 4);
}

TEST(KernelVersion, FieldsThatAreMissingStayMinusOne) {
  const auto version = [](int major, int minor, int patch, int build) {
    return KernelVersion{.major = major, .minor = minor, .patch = patch, .build = build};
  };
  EXPECT_EQ(ParseKernelRelease("5.4.0-42-generic"), version(5, 4, 0, 42));
  EXPECT_EQ(ParseKernelRelease("6.18.5"), version(6, 18, 5, -1));
  EXPECT_EQ(ParseKernelRelease("6.18.5+"), version(6, 18, 5, -1));
  EXPECT_EQ(ParseKernelRelease("6.1.0-rc3"), version(6, 1, 0, -1));
  EXPECT_EQ(ParseKernelRelease("6.1-rc3"), version(6, 1, -1, -1));
  EXPECT_EQ(ParseKernelRelease("7"), version(7, -1, -1, -1));
  EXPECT_EQ(ParseKernelRelease(""), version(-1, -1, -1, -1));
  EXPECT_EQ(ParseKernelRelease("linux"), version(-1, -1, -1, -1));
}

TEST(KernelVersion, ComparesByMajorThenMinorThenPatchThenBuild) {
  const std::vector<const char*> ascending = {"4.19.1-9", "5",       "5.3.9-9", "5.4",
                                              "5.4.0",    "5.4.0-1", "5.10.0"};
  for (std::size_t i = 1; i < ascending.size(); ++i)
    EXPECT_LT(ParseKernelRelease(ascending[i - 1]), ParseKernelRelease(ascending[i])) << ascending[i];
}

// --- Workstation or server. ---

const std::vector<std::string> kBrowsers = {"chrome",  "chromium",      "chromium-browser",
                                            "firefox", "firefox-esr",   "google-chrome",
                                            "opera",   "yandex-browser"};
const std::vector<std::string> kDirectories = {"/usr/bin", "/usr/local/bin", "/snap/bin",
                                               "/var/lib/snapd/snap/bin"};

std::string FoundText(const std::string& browser) {
  return "A browser \"" + browser +
         "\" was found on the machine, we believe that we are working on a workstation.";
}

TEST_F(OsInfoTest, AMachineWithoutABrowserIsAServer) {
  m_root.Write("/usr/bin/firefox2", "");
  EXPECT_FALSE(IsWorkstation(m_tracer.get(), m_root.Path()));
  ASSERT_EQ(m_tracer->Records().size(), 1U);
  EXPECT_EQ(m_tracer->Records()[0].level, 800U);
  EXPECT_EQ(m_tracer->Records()[0].text,
            "A browser was not found on the machine, we believe that we are working on a server.");
}

TEST_F(OsInfoTest, EachBrowserInEachDirectoryMakesAWorkstation) {
  for (const std::string& browser : kBrowsers) {
    for (const std::string& directory : kDirectories) {
      m_tracer->Clear();
      const std::string path = m_root.Write(directory + "/" + browser, "");
      EXPECT_TRUE(IsWorkstation(m_tracer.get(), m_root.Path())) << path;
      EXPECT_EQ(m_tracer->Records().back().text, FoundText(browser));
      std::filesystem::remove(path);
    }
  }
}

TEST_F(OsInfoTest, BrowsersAreTriedInTheirOrderBeforeDirectories) {
  m_root.Write("/usr/bin/yandex-browser", "");
  m_root.Write("/var/lib/snapd/snap/bin/chromium", "");
  EXPECT_TRUE(IsWorkstation(m_tracer.get(), m_root.Path()));
  EXPECT_TRUE(m_tracer->Has(800, FoundText("chromium")));
}

TEST_F(OsInfoTest, ADanglingLinkOfABrowsersNameMakesNoWorkstation) {
  std::filesystem::create_symlink("nowhere", m_root.Place("/usr/bin/firefox"));
  EXPECT_FALSE(IsWorkstation(m_tracer.get(), m_root.Path()));
}

TEST_F(OsInfoTest, ALinkToABrowserIsFollowed) {
  m_root.Write("/opt/firefox/firefox-bin", "");
  std::filesystem::create_symlink("../../opt/firefox/firefox-bin", m_root.Place("/usr/bin/firefox"));
  EXPECT_TRUE(IsWorkstation(m_tracer.get(), m_root.Path()));
}

TEST_F(OsInfoTest, AStatThatFailsInAnyOtherWayMovesOn) {
  std::filesystem::create_symlink("chrome", m_root.Place("/usr/bin/chrome"));  // ELOOP
  m_root.Write("/usr/local/bin", "a file where a directory belongs");          // ENOTDIR
  EXPECT_FALSE(IsWorkstation(m_tracer.get(), m_root.Path()));
  m_root.Write("/snap/bin/opera", "");
  EXPECT_TRUE(IsWorkstation(m_tracer.get(), m_root.Path()));
}

}  // namespace
}  // namespace qor
