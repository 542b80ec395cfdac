#include "process_manager/process/user_localization.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_services.h"
#include "support/forwarding_parser.h"
#include "zym/generic_object_factory.h"
#include "zym/module_counter.h"

namespace {

using namespace qor::process_manager;
using zym::types::string16_t;

class ProcessUserLocalizationProviderTest : public testing::Test {
 protected:
  ProcessUserLocalizationProviderTest() {
    m_parser->onGetEnvironmentVariable = [this](qor::PidType pid, const char* name, std::string& value) {
      EXPECT_STREQ(name, "LANG");
      ++m_asked;
      if (const auto found = m_lang.find(pid); found != m_lang.end()) value = found->second;
      return m_readable ? zym::ZYM_OK : zym::ZYM_E_UNSPECIFIED;
    };
    m_host.locator->Add<qor::procfs::IParser>(m_parser);
    m_host.startupData->data.localization = u"de";
  }
  ~ProcessUserLocalizationProviderTest() override { EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects); }

  // As a host makes one, FinalConstruct and all.
  zym::result_t Make(zym::intrusive_ptr<IProcessUserLocalizationProvider>& provider) {
    const auto factory =
        zym::intrusive_ptr<zym::IObjectFactory>::Attach(new zym::Factory<ProcessUserLocalizationProvider>());
    return zym::CreateInstance(factory.get(), m_host.locator.get(), provider.Ref());
  }

  // The answer for a process with this LANG.
  std::u16string Of(const std::string& lang) {
    m_lang[kPid] = lang;
    return Ask(kPid);
  }
  std::u16string Ask(qor::PidType pid) {
    zym::intrusive_ptr<IProcessUserLocalizationProvider> provider;
    EXPECT_EQ(Make(provider), zym::ZYM_OK);
    string16_t localization = u"what stood there before";
    EXPECT_EQ(provider->GetProcessUserLocalization(pid, localization), zym::ZYM_OK);
    return {localization.begin(), localization.end()};
  }

  static constexpr qor::PidType kPid = 77;

  test_support::FakeHost m_host;
  std::map<qor::PidType, std::string> m_lang;
  bool m_readable = true;
  std::atomic<int> m_asked = 0;
  const zym::intrusive_ptr<test_support::ForwardingParser> m_parser =
      zym::CreateObject<test_support::ForwardingParser>();
  const std::int32_t m_objects = zym::ModuleObjectCounter::Value();
};

TEST_F(ProcessUserLocalizationProviderTest, RussianYieldsRu) {
  EXPECT_EQ(Of("ru_RU.UTF-8"), u"ru");
}

TEST_F(ProcessUserLocalizationProviderTest, TaiwanYieldsZhHantAndMainlandChinaZhHans) {
  EXPECT_EQ(Of("zh_TW.UTF-8"), u"zh-hant");
  EXPECT_EQ(Of("zh_CN.GBK"), u"zh-hans");
}

TEST_F(ProcessUserLocalizationProviderTest, AnEmptyLangCAndPosixYieldTheDefault) {
  for (const char* lang : {"", "C", "POSIX"}) EXPECT_EQ(Of(lang), u"de") << lang;
}

TEST_F(ProcessUserLocalizationProviderTest, ALanguageOfNoLettersYieldsTheDefault) {
  EXPECT_EQ(Of("_US"), u"de");
}

TEST_F(ProcessUserLocalizationProviderTest, AProcessWithoutLangYieldsTheDefault) {
  EXPECT_EQ(Ask(kPid), u"de");
}

TEST_F(ProcessUserLocalizationProviderTest, AProcessThatCannotBeReadYieldsTheDefault) {
  m_readable = false;
  EXPECT_EQ(Ask(kPid), u"de");
}

TEST_F(ProcessUserLocalizationProviderTest, WhatAFailedReadLeftIsNotBelieved) {
  m_lang[kPid] = "fr_FR.UTF-8";  // what a reader leaves there when it fails on the way
  m_readable = false;
  EXPECT_EQ(Ask(kPid), u"de");
}

TEST_F(ProcessUserLocalizationProviderTest, OnlyLangIsAskedFor) {
  Of("en_US.UTF-8");
  EXPECT_EQ(m_asked, 1);
}

TEST_F(ProcessUserLocalizationProviderTest, AnEmptyDefaultIsADefaultToo) {
  m_host.startupData->data.localization.clear();
  EXPECT_EQ(Of("C"), u"");
}

TEST_F(ProcessUserLocalizationProviderTest, TheDefaultIsTakenWhenTheObjectIsMade) {
  zym::intrusive_ptr<IProcessUserLocalizationProvider> provider;
  ASSERT_EQ(Make(provider), zym::ZYM_OK);
  m_host.startupData->data.localization = u"fr";
  string16_t localization;
  EXPECT_EQ(provider->GetProcessUserLocalization(kPid, localization), zym::ZYM_OK);
  EXPECT_EQ(std::u16string_view(localization), u"de");
}

TEST_F(ProcessUserLocalizationProviderTest, TheTraceTellsTheCallAndTheLanguage) {
  Of("zh_TW");
  EXPECT_EQ(m_host.tracer->Find("localization: "), "localization: zh-hant");
  EXPECT_TRUE(m_host.tracer->Has(800, "::ProcessUserLocalizationProvider::GetProcessUserLocalization("));
  EXPECT_TRUE(m_host.tracer->Has(800, "localization: zh-hant"));
  EXPECT_FALSE(m_host.tracer->Has("use default"));
}

TEST_F(ProcessUserLocalizationProviderTest, TheTraceTellsThatTheDefaultIsUsed) {
  Of("POSIX");
  EXPECT_TRUE(m_host.tracer->Has(800, "Cannot get localization for 77, use default"));
  EXPECT_EQ(m_host.tracer->Find("localization for"), "Cannot get localization for 77, use default");
  EXPECT_FALSE(m_host.tracer->Has("localization: "));
}

TEST_F(ProcessUserLocalizationProviderTest, WithoutAReaderOfProcTheLocatorsCodeIsGiven) {
  zym::intrusive_ptr<IProcessUserLocalizationProvider> provider;
  ASSERT_EQ(Make(provider), zym::ZYM_OK);
  m_host.locator->FailWith(qor::procfs::IParser::kIid, zym::ZYM_E_LOCKED);
  string16_t localization = u"untouched";
  EXPECT_EQ(provider->GetProcessUserLocalization(kPid, localization), zym::ZYM_E_LOCKED);
  EXPECT_EQ(std::u16string_view(localization), u"untouched");
  const std::string record = m_host.tracer->Find("failed: result");
  EXPECT_NE(record.find("process_manager/process/user_localization.cpp:"), std::string::npos) << record;
  EXPECT_NE(
      record.find("(zym::GetInterface(GetServiceLocator(), procfsParser.Ref())),(ZYM_SUCCEEDED(_result)) "
                  "failed: result = 0x8000004f (Locked)"),
      std::string::npos)
      << record;
  EXPECT_TRUE(m_host.tracer->Has(300, "procfsParser.Ref()"));
}

TEST_F(ProcessUserLocalizationProviderTest, WithoutStartupDataItIsNotMade) {
  m_host.locator->FailWith(qor::IStartupDataProvider::kIid, zym::ZYM_E_NOT_FOUND);
  zym::intrusive_ptr<IProcessUserLocalizationProvider> provider;
  EXPECT_EQ(Make(provider), zym::ZYM_E_NOT_FOUND);
  EXPECT_FALSE(provider);
  EXPECT_EQ(m_host.allocator->Live(), 0);
  const std::string record = m_host.tracer->Find("failed: result");
  EXPECT_NE(
      record.find(
          "(zym::GetInterface(GetServiceLocator(), startupDataProvider.Ref())),(ZYM_SUCCEEDED(_result)) "
          "failed: result = 0x8000004c (Not found) Cannot get IStartupDataProvider interface"),
      std::string::npos)
      << record;
  EXPECT_TRUE(m_host.tracer->Has(300, "Cannot get IStartupDataProvider interface"));
}

TEST_F(ProcessUserLocalizationProviderTest, ItsEndLetsTheStartupDataGo) {
  zym::IObject& startupData = *m_host.startupData;
  const std::uint32_t before = startupData.AddRef();
  zym::intrusive_ptr<IProcessUserLocalizationProvider> provider;
  ASSERT_EQ(Make(provider), zym::ZYM_OK);
  EXPECT_EQ(startupData.AddRef(), before + 2) << "it keeps the provider while it lives";
  provider.Reset();
  EXPECT_EQ(startupData.Release(), before);
  startupData.Release();
}

TEST_F(ProcessUserLocalizationProviderTest, ALackOfMemoryIsACode) {
  zym::intrusive_ptr<IProcessUserLocalizationProvider> provider;
  m_host.startupData->data.localization = u"a default of more than seven characters";
  ASSERT_EQ(Make(provider), zym::ZYM_OK);
  string16_t localization{string16_t::allocator_type(m_host.allocator.get())};
  m_host.allocator->FailFrom(0);
  EXPECT_EQ(provider->GetProcessUserLocalization(kPid, localization), zym::ZYM_E_OUT_OF_MEMORY);
  m_host.allocator->NeverFail();
  EXPECT_EQ(provider->GetProcessUserLocalization(kPid, localization), zym::ZYM_OK);
  EXPECT_EQ(std::u16string_view(localization), u"a default of more than seven characters");
}

TEST_F(ProcessUserLocalizationProviderTest, ManyThreadsMayAskAtOnce) {
  m_lang[1] = "ru_RU";
  zym::intrusive_ptr<IProcessUserLocalizationProvider> provider;
  ASSERT_EQ(Make(provider), zym::ZYM_OK);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (qor::PidType j = 0; j < 200; ++j) {
        string16_t localization;
        EXPECT_EQ(provider->GetProcessUserLocalization(j % 2, localization), zym::ZYM_OK);
        EXPECT_EQ(std::u16string_view(localization), j % 2 == 1 ? u"ru" : u"de");
      }
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
