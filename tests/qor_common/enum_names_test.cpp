#include "qor_common/enum_names.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "qor_common/enum_family.h"

namespace qor {
namespace {

template <class Work>
std::string MessageOf(const Work& work) {
  try {
    work();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(nothing was thrown)";
}

template <class E>
void ExpectFamily(const std::vector<std::pair<E, std::string>>& rows) {
  for (const auto& [value, name] : rows) {
    EXPECT_EQ(EnumToString(value), name);
    E back{};
    StringToEnum(back, name);
    EXPECT_EQ(back, value) << name;
  }
}

TEST(EnumNames, EachValueHasItsNameAndEachNameItsValue) {
  ExpectFamily<ReportFeatures::Type>({{ReportFeatures::RealTimeProtection, "RealTimeProtection"},
                                      {ReportFeatures::FileIntegrity, "FileIntegrity"},
                                      {ReportFeatures::JournalMonitoring, "JournalMonitoring"},
                                      {ReportFeatures::MemoryScanning, "MemoryScanning"},
                                      {ReportFeatures::ProcessMonitoring, "ProcessMonitoring"}});
  ExpectFamily<ReportFeatureTechs::Type>({{ReportFeatureTechs::Netlink, "Netlink"},
                                          {ReportFeatureTechs::Kprobes, "Kprobes"},
                                          {ReportFeatureTechs::Fanotify, "Fanotify"},
                                          {ReportFeatureTechs::Journal, "Journal"},
                                          {ReportFeatureTechs::ExploitPrevention, "ExploitPrevention"}});
  ExpectFamily<TaskState::Type>({{TaskState::Unknown, "Unknown"},
                                 {TaskState::Created, "Created"},
                                 {TaskState::Starting, "Starting"},
                                 {TaskState::Running, "Running"},
                                 {TaskState::Pausing, "Pausing"},
                                 {TaskState::Paused, "Paused"},
                                 {TaskState::Stopped, "Stopped"},
                                 {TaskState::Completed, "Completed"}});
  ExpectFamily<EventName::Type>({{EventName::ObjectProcessingError, "ObjectProcessingError"}});
  ExpectFamily<bool>({{false, "No"}, {true, "Yes"}});
}

TEST(EnumNames, TheNumbersAreTheHosts) {
  EXPECT_EQ(ReportFeatures::RealTimeProtection, 1U);
  EXPECT_EQ(ReportFeatures::MemoryScanning, 5U);
  EXPECT_EQ(ReportFeatures::ProcessMonitoring, 8U);
  EXPECT_EQ(ReportFeatureTechs::Netlink, 1U);
  EXPECT_EQ(ReportFeatureTechs::ExploitPrevention, 9U);
  EXPECT_EQ(TaskState::Stopped, 6U);
  EXPECT_EQ(TaskState::Completed, 7U);
}

TEST(EnumNames, AValueOneBeyondTheLastThrowsAndTheMessageNamesTheFamily) {
  EXPECT_EQ(MessageOf([] { EnumToString(static_cast<ReportFeatures::Type>(9)); }),
            "EnumToString, invalid 'ReportFeatures' enum value: 9");
  EXPECT_EQ(MessageOf([] { EnumToString(static_cast<ReportFeatureTechs::Type>(10)); }),
            "EnumToString, invalid 'ReportFeatureTechs' enum value: 10");
  EXPECT_EQ(MessageOf([] { EnumToString(static_cast<TaskState::Type>(8)); }),
            "EnumToString, invalid 'TaskState' enum value: 8");
  EXPECT_EQ(MessageOf([] { EnumToString(static_cast<EventName::Type>(2)); }),
            "EnumToString, invalid 'EventName' enum value: 2");
}

TEST(EnumNames, AValueInAGapThrowsAndIsWrittenWithoutASign) {
  EXPECT_EQ(MessageOf([] { EnumToString(static_cast<ReportFeatures::Type>(4)); }),
            "EnumToString, invalid 'ReportFeatures' enum value: 4");
  EXPECT_EQ(MessageOf([] { EnumToString(static_cast<ReportFeatures::Type>(0xffffffff)); }),
            "EnumToString, invalid 'ReportFeatures' enum value: 4294967295");
}

template <class E>
std::string MessageFor(std::string_view text, E kept) {
  E value = kept;
  const std::string message = MessageOf([&] { StringToEnum(value, text); });
  EXPECT_EQ(value, kept) << "left alone";
  return message;
}

TEST(EnumNames, AnUnknownTextThrowsAndTheMessageNamesTheType) {
  EXPECT_EQ(MessageFor("Nothing", ReportFeatures::FileIntegrity),
            "There is no such 'ReportFeatures::Type' value: Nothing");
  EXPECT_EQ(MessageFor("Nothing", ReportFeatureTechs::Journal),
            "There is no such 'ReportFeatureTechs::Type' value: Nothing");
  EXPECT_EQ(MessageFor("Nothing", TaskState::Paused), "There is no such 'TaskState::Type' value: Nothing");
  EXPECT_EQ(MessageFor("", EventName::ObjectProcessingError), "There is no such 'EventName::Type' value: ");
}

TEST(EnumNames, TheMessageOfBooleanNamesBool) {
  EXPECT_EQ(MessageFor("Maybe", true), "There is no such 'bool' value: Maybe");
}

TEST(EnumNames, ANameThatDiffersOnlyInCaseIsNotFound) {
  EXPECT_EQ(MessageFor("filEintegrity", ReportFeatures::FileIntegrity),
            "There is no such 'ReportFeatures::Type' value: filEintegrity");
  EXPECT_EQ(MessageFor("yes", false), "There is no such 'bool' value: yes");
}

TEST(EnumNames, ANameIsComparedWhole) {
  using namespace std::string_view_literals;
  for (const auto text : {"Netlin"sv, "Netlink "sv, "Netlink\0"sv})
    EXPECT_NE(MessageFor(text, ReportFeatureTechs::Journal), "(nothing was thrown)") << text;
}

template <class T>
concept HasName = requires(T value) {
  EnumToString(value);
};

TEST(EnumNames, ANumberIsNoBool) {
  EXPECT_TRUE(HasName<bool>);
  EXPECT_TRUE(HasName<ReportFeatures::Type>);
  EXPECT_FALSE(HasName<std::uint32_t>);
  EXPECT_FALSE(HasName<const char*>);
}

// The look-ups work while other parts of the program are still being built.
const std::string g_earlyName = EnumToString(ReportFeatures::FileIntegrity);

TEST(EnumNames, AreThereDuringStaticInitialisation) {
  EXPECT_EQ(g_earlyName, "FileIntegrity");
}

TEST(EnumFamily, ADuplicateIsIgnoredByTheIndexThatHasIt) {
  const EnumFamily family("F", "F::Type", {{1, "one"}, {2, "two"}, {1, "uno"}, {3, "two"}, {1, "one"}});
  EXPECT_EQ(family.NameOf(1), "one");
  EXPECT_EQ(family.ValueOf("uno"), 1U) << "the name is new, so it is found by its name";
  EXPECT_EQ(family.ValueOf("two"), 2U);
  EXPECT_EQ(family.NameOf(3), "two") << "the value is new, so it is found by its value";
}

TEST(EnumFamily, AnEmptyFamilyKnowsNothing) {
  const EnumFamily family("F", "F::Type", {});
  EXPECT_EQ(MessageOf([&] { static_cast<void>(family.NameOf(0)); }),
            "EnumToString, invalid 'F' enum value: 0");
  EXPECT_EQ(MessageOf([&] { static_cast<void>(family.ValueOf("x")); }),
            "There is no such 'F::Type' value: x");
}

}  // namespace
}  // namespace qor
