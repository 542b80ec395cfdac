// The language of real processes, asked of the loaded module.
#include "process_manager/user_localization.h"

#include <gtest/gtest.h>

#include <string>

#include "module/module_host.h"
#include "support/child.h"
#include "support/lang.h"

namespace {

using namespace test_support;

class ModuleUserLanguage : public testing::Test {
 protected:
  ModuleUserLanguage() {
    m_host.host.startupData->data.localization = u"xx";
    EXPECT_EQ(m_host.module.Make(qor::class_ids::kProcessUserLocalizationProvider, m_host.host.locator.get(),
                                 m_languages),
              zym::ZYM_OK);
  }

  std::u16string Of(qor::PidType pid) const {
    zym::types::string16_t localization;
    EXPECT_EQ(m_languages->GetProcessUserLocalization(pid, localization), zym::ZYM_OK);
    return {localization.begin(), localization.end()};
  }
  std::u16string OfAShellWith(const char* value) const {
    const Lang lang(value);
    const Child shell = Child::Shell("/bin/sh");
    return Of(shell.Pid());
  }

  ModuleHost m_host;
  zym::intrusive_ptr<qor::process_manager::IProcessUserLocalizationProvider> m_languages;
};

TEST_F(ModuleUserLanguage, OfAProcessIsThatOfItsOwnEnvironment) {
  EXPECT_EQ(OfAShellWith("ru_RU.UTF-8"), u"ru");
  EXPECT_EQ(OfAShellWith("zh_TW.UTF-8"), u"zh-hant");
  EXPECT_EQ(OfAShellWith("zh_CN.GBK"), u"zh-hans");
}

TEST_F(ModuleUserLanguage, WithoutOneTheProductsIsGiven) {
  for (const char* value : {"", "C", "POSIX", "en"}) EXPECT_EQ(OfAShellWith(value), u"xx") << value;
  EXPECT_EQ(OfAShellWith(nullptr), u"xx");
}

TEST_F(ModuleUserLanguage, OfAProcessThatIsGoneIsTheProducts) {
  const Lang lang("ru_RU.UTF-8");
  Child shell = Child::Shell("/bin/sh");
  const qor::PidType pid = shell.Pid();
  shell.Kill();
  EXPECT_EQ(Of(pid), u"xx") << "a zombie has no environment";
  shell.End();
  EXPECT_EQ(Of(pid), u"xx");
}

}  // namespace
