// Applications, languages of users and names of files when memory gives out at each allocation of an
// operation.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>

#include "module/memory_faults.h"
#include "process_manager/application_manager.h"
#include "process_manager/file_name_mapper.h"
#include "process_manager/user_localization.h"
#include "support/child.h"
#include "support/lang.h"

namespace {

using namespace test_support;
using namespace system_interceptors::application_manager_facade;
using Failing = HeapFaults::Failing;
using Threads = HeapFaults::Threads;
using zym::types::string16_t;
namespace class_ids = qor::class_ids;

// --- applications
// ---------------------------------------------------------------------------------------------

class ApplicationMemoryFaults : public testing::Test {
 protected:
  ApplicationMemoryFaults() {
    EXPECT_EQ(m_faultHost.module.Make(class_ids::kApplicationManager, m_faultHost.Locator(), m_manager),
              zym::ZYM_OK);
  }

  zym::result_t Create(std::uint32_t id, IApplication** application) const {
    return m_manager->CreateApplication(
        id, system_interceptors::application_manager::application_priority::kNormal, application);
  }

  FaultHost m_faultHost;
  zym::intrusive_ptr<IApplicationManager> m_manager;
};

TEST_F(ApplicationMemoryFaults, AnApplicationIsRegisteredAndGivenOrNeither) {
  AtEachAllocation([&](Shortage shortage) {
    SCOPED_TRACE(shortage);
    m_faultHost.host.tracer->Clear();
    const std::int64_t before = HeapFaults::Live();
    zym::intrusive_ptr<IApplication> application;
    HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
    const zym::result_t result = Create(7, application.Ref());
    faults.End();
    EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
    EXPECT_EQ(m_faultHost.host.tracer->Has(300, "CreateApplication: std::bad_alloc"), faults.Fired());
    EXPECT_EQ(bool(application), !faults.Fired());
    application.Reset();
    EXPECT_EQ(m_manager->DeleteApplication(7), faults.Fired() ? zym::ZYM_E_NOT_FOUND : zym::ZYM_OK);
    m_faultHost.host.tracer->Clear();
    EXPECT_EQ(HeapFaults::Live(), before);
    return faults.Fired();
  });
}

TEST_F(ApplicationMemoryFaults, TheOtherOperationsNeedNoMemory) {
  zym::intrusive_ptr<IApplication> created;
  ASSERT_EQ(Create(7, created.Ref()), zym::ZYM_OK);
  zym::intrusive_ptr<IApplication> opened;
  zym::intrusive_ptr<system_interceptors::interceptor_facade::IInterceptor> interceptor;
  HeapFaults faults(Threads::kThis, Failing::kFromThenOn, 0);
  const zym::result_t results[] = {
      m_manager->OpenApplication(8, opened.Ref()),
      m_manager->OpenApplication(7, opened.Ref()),
      opened->GetInterceptor(interceptor.Ref()),
      m_manager->DeleteApplication(7),
      m_manager->DeleteApplication(7),
  };
  opened.Reset();
  created.Reset();
  faults.End();
  const zym::result_t expected[] = {zym::ZYM_E_NOT_FOUND, zym::ZYM_OK, zym::ZYM_E_NO_INTERFACE, zym::ZYM_OK,
                                    zym::ZYM_E_NOT_FOUND};
  EXPECT_TRUE(std::ranges::equal(results, expected)) << testing::PrintToString(results);
}

// --- languages
// ------------------------------------------------------------------------------------------------

// Memory that fails the reader of /proc makes the process one that can't be read, with the reader's trace.
TEST(LanguageMemoryFaults, OfAProcessIsItsOwnOrTheProductsOrRefused) {
  const FaultHost faultHost;
  const string16_t products = u"a language that is too long for a string of its own";
  faultHost.host.startupData->data.localization = products;
  zym::intrusive_ptr<qor::process_manager::IProcessUserLocalizationProvider> languages;
  ASSERT_EQ(
      faultHost.module.Make(class_ids::kProcessUserLocalizationProvider, faultHost.Locator(), languages),
      zym::ZYM_OK);
  string16_t first;
  ASSERT_EQ(languages->GetProcessUserLocalization(0, first), zym::ZYM_OK);  // the locator notes who was asked
  for (const char* lang : {"zh_TW.a-character-set-with-a-long-name", "POSIX"}) {
    SCOPED_TRACE(lang);
    const Lang own(lang);
    const Child shell = Child::Shell("/bin/sh");
    const bool hasOwn = lang[0] == 'z';
    AtEachAllocation([&](Shortage shortage) {
      SCOPED_TRACE(shortage);
      faultHost.host.tracer->Clear();
      const std::int64_t before = HeapFaults::Live();
      bool fired = false;
      {
        string16_t language = u"before";
        HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
        const zym::result_t result = languages->GetProcessUserLocalization(shell.Pid(), language);
        faults.End();
        fired = faults.Fired();
        const bool wasTold = faultHost.host.tracer->Has(300, "");
        EXPECT_EQ(wasTold, fired);
        if (result == zym::ZYM_OK) {
          EXPECT_TRUE(language == (hasOwn && !wasTold ? string16_t(u"zh-hant") : products));
        } else {
          EXPECT_TRUE(fired);
          EXPECT_EQ(result, zym::ZYM_E_OUT_OF_MEMORY);
          EXPECT_TRUE(faultHost.host.tracer->Has(300, "GetProcessUserLocalization: std::bad_alloc"));
          EXPECT_TRUE(language == u"before");
        }
      }
      faultHost.host.tracer->Clear();
      EXPECT_EQ(HeapFaults::Live(), before);
      return fired;
    });
  }
}

// --- names of files
// -------------------------------------------------------------------------------------------

TEST(FileNameMemoryFaults, EachOperationGivesTheNameOrIsOutOfMemory) {
  const FaultHost faultHost;
  zym::intrusive_ptr<system_interceptors::file_name_mapper::IFileNameMapper> mapper;
  ASSERT_EQ(faultHost.module.Make(class_ids::kFileNameMapper, faultHost.Locator(), mapper), zym::ZYM_OK);
  zym::intrusive_ptr<system_interceptors::file_name_mapper::IFileNameMapper2> mapper2;
  zym::intrusive_ptr<dorp::IFileNameMapper> dorps;
  ASSERT_EQ(zym::QueryInterface(mapper, mapper2.Ref()), zym::ZYM_OK);
  ASSERT_EQ(zym::QueryInterface(mapper, dorps.Ref()), zym::ZYM_OK);
  const char16_t* const name = u"/a/name/that/is/./too/long/for/../a/string/of/its/own";
  const char16_t* const normal = u"/a/name/that/is/too/long/a/string/of/its/own";
  const string16_t text = name;
  const struct {
    const char* name;
    const char16_t* expected;
    std::function<zym::result_t(string16_t& out)> operation;
  } operations[] = {
      {"CopyName of a text", name, [&](string16_t& out) { return mapper->CopyName(text, out); }},
      {"CopyName", name, [&](string16_t& out) { return mapper->CopyName(name, out); }},
      {"NormalizeName", normal, [&](string16_t& out) { return mapper->NormalizeName(name, out); }},
      {"CopyName of a range", name, [&](string16_t& out) { return mapper2->CopyName(text, out); }},
      {"CopyName with a mode", normal, [&](string16_t& out) { return mapper2->CopyName(text, out, 1); }},
      {"another CopyName", name, [&](string16_t& out) { return dorps->CopyName(name, out); }},
      {"CopyName with a number", name, [&](string16_t& out) { return dorps->CopyName(7, name, out); }},
      {"CopyNameBack", name, [&](string16_t& out) { return dorps->CopyNameBack(name, out); }},
  };
  for (const auto& [what, expected, operation] : operations) {
    SCOPED_TRACE(what);
    AtEachAllocation([&, expected = expected, &operation = operation](Shortage shortage) {
      SCOPED_TRACE(shortage);
      faultHost.host.tracer->Clear();
      string16_t out;
      HeapFaults faults(Threads::kThis, shortage.failing, shortage.call);
      const zym::result_t result = operation(out);
      faults.End();
      EXPECT_EQ(result, faults.Fired() ? zym::ZYM_E_OUT_OF_MEMORY : zym::ZYM_OK);
      EXPECT_EQ(faultHost.host.tracer->Has(300, "CopyName: std::bad_alloc"), faults.Fired());
      if (result == zym::ZYM_OK) {
        EXPECT_TRUE(out == expected);
      }
      return faults.Fired();
    });
  }
}

}  // namespace
