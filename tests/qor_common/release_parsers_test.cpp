#include "qor_common/release_parsers.h"

#include <gtest/gtest.h>

#include <boost/property_tree/ini_parser.hpp>
#include <string>

namespace qor {
namespace {

using Parser = zym::result_t (*)(const std::string&, OsInfo&);

OsInfo Parsed(Parser parse, const std::string& text) {
  OsInfo info;
  EXPECT_EQ(parse(text, info), zym::ZYM_OK) << text;
  return info;
}

void ExpectNotMatched(Parser parse, const std::string& text) {
  OsInfo info{.name = "n", .version = "v", .description = "d"};
  EXPECT_EQ(parse(text, info), zym::ZYM_E_NOT_MATCHED) << text;
  EXPECT_EQ(info.name + info.version + info.description, "nvd") << "left alone";
}

TEST(OsReleaseParser, TakesTheThreeValuesInAnyOrder) {
  const OsInfo info = Parsed(&ParseOsRelease, "# c\nID=x\n\nPRETTY_NAME=P 1\nVERSION_ID=1\nNAME=N\n");
  EXPECT_EQ(info.name, "N");
  EXPECT_EQ(info.version, "1");
  EXPECT_EQ(info.description, "P 1");
}

TEST(OsReleaseParser, QuotesAreNotTakenOff) {
  const OsInfo info = Parsed(&ParseOsRelease, "NAME=\"N M\"\nVERSION_ID='1'\nPRETTY_NAME=\"a\\\"b\"\n");
  EXPECT_EQ(info.name, "\"N M\"");
  EXPECT_EQ(info.version, "'1'");
  EXPECT_EQ(info.description, "\"a\\\"b\"");
}

TEST(OsReleaseParser, TheVersionIsReleaseOnlyWhereVersionIdIsAbsent) {
  EXPECT_EQ(Parsed(&ParseOsRelease, "NAME=N\nPRETTY_NAME=P\nRELEASE=2\n").version, "2");
  EXPECT_EQ(Parsed(&ParseOsRelease, "NAME=N\nPRETTY_NAME=P\nRELEASE=2\nVERSION_ID=1\n").version, "1");
  EXPECT_EQ(Parsed(&ParseOsRelease, "NAME=N\nPRETTY_NAME=P\nRELEASE=2\nVERSION_ID=\n").version, "");
}

TEST(OsReleaseParser, ARollingDistributionWithoutAnyVersionIsTaken) {
  EXPECT_EQ(Parsed(&ParseOsRelease, "NAME=\"Arch Linux\"\nPRETTY_NAME=\"Arch Linux\"\n").version, "");
}

TEST(OsReleaseParser, WithoutNameOrPrettyNameItIsNotMatched) {
  ExpectNotMatched(&ParseOsRelease, "PRETTY_NAME=P\nVERSION_ID=1\n");
  ExpectNotMatched(&ParseOsRelease, "NAME=N\nVERSION_ID=1\n");
  ExpectNotMatched(&ParseOsRelease, "name=N\nPRETTY_NAME=P\n");
  ExpectNotMatched(&ParseOsRelease, "[s]\nNAME=N\nPRETTY_NAME=P\n");
  ExpectNotMatched(&ParseOsRelease, "\n");
}

TEST(OsReleaseParser, ATextThatIsNoIniTextRaises) {
  OsInfo info;
  EXPECT_THROW(ParseOsRelease("NAME\n", info), boost::property_tree::ini_parser_error);
}

TEST(LsbReleaseParser, TakesTheThreeValues) {
  const OsInfo info =
      Parsed(&ParseLsbRelease, "DISTRIB_ID=U\nDISTRIB_RELEASE=22.04\nDISTRIB_DESCRIPTION=\"U 22\"\n");
  EXPECT_EQ(info.name, "U");
  EXPECT_EQ(info.version, "22.04");
  EXPECT_EQ(info.description, "\"U 22\"");
}

TEST(LsbReleaseParser, AllThreeAreRequired) {
  ExpectNotMatched(&ParseLsbRelease, "DISTRIB_RELEASE=1\nDISTRIB_DESCRIPTION=D\n");
  ExpectNotMatched(&ParseLsbRelease, "DISTRIB_ID=U\nDISTRIB_DESCRIPTION=D\n");
  ExpectNotMatched(&ParseLsbRelease, "DISTRIB_ID=U\nDISTRIB_RELEASE=1\n");
  ExpectNotMatched(&ParseLsbRelease, "NAME=N\nVERSION_ID=1\nPRETTY_NAME=P\n");
}

TEST(ReleaseLineParser, TheVersionIsTrimmedFromTheRightOnly) {
  const std::string text = "Fedora  release  39 (Thirty Nine) \t\r\n\n";
  const OsInfo info = Parsed(&ParseReleaseLine, text);
  EXPECT_EQ(info.name, "Fedora ");
  EXPECT_EQ(info.version, " 39 (Thirty Nine)");
  EXPECT_EQ(info.description, text);
}

TEST(ReleaseLineParser, TheFirstReleaseDivides) {
  const OsInfo info = Parsed(&ParseReleaseLine, "A release B release 1");
  EXPECT_EQ(info.name, "A");
  EXPECT_EQ(info.version, "B release 1");
}

TEST(ReleaseLineParser, AVersionOfBlanksAloneIsEmpty) {
  EXPECT_EQ(Parsed(&ParseReleaseLine, "A release \n \t").version, "");
}

TEST(ReleaseLineParser, WithoutTheWordItIsNotMatched) {
  ExpectNotMatched(&ParseReleaseLine, "Gentoo Base System 2.14");
  ExpectNotMatched(&ParseReleaseLine, "A Release 1");
  ExpectNotMatched(&ParseReleaseLine, "A release");
  ExpectNotMatched(&ParseReleaseLine, "A\trelease\t1");
}

TEST(SuseReleaseParser, ThePatchLevelJoinsTheVersion) {
  const std::string text = "SUSE Linux Enterprise Server 12 (x86_64)\nVERSION = 12\nPATCHLEVEL = 3\n# old\n";
  const OsInfo info = Parsed(&ParseSuseRelease, text);
  EXPECT_EQ(info.name, "SUSE Linux Enterprise Server 12 (x86_64)");
  EXPECT_EQ(info.version, "12.3");
  EXPECT_EQ(info.description, text);
}

TEST(SuseReleaseParser, WithoutAPatchLevelTheVersionStandsAlone) {
  EXPECT_EQ(Parsed(&ParseSuseRelease, "openSUSE 13.2 (x86_64)\nVERSION = 13.2\nCODENAME = H\n").version,
            "13.2");
  EXPECT_EQ(Parsed(&ParseSuseRelease, "openSUSE\nVERSION=13.2").version, "13.2");
}

TEST(SuseReleaseParser, APatchLevelThatDoesNotFollowAtOnceIsNotJoined) {
  EXPECT_EQ(Parsed(&ParseSuseRelease, "S\nVERSION = 12\nCODENAME = x\nPATCHLEVEL = 3\n").version, "12");
}

TEST(SuseReleaseParser, TheNameIsTheLineBeforeTheVersion) {
  EXPECT_EQ(Parsed(&ParseSuseRelease, "comment\nname\nVERSION = 1\n").name, "name");
}

TEST(SuseReleaseParser, WithoutANameOrAVersionItIsNotMatched) {
  ExpectNotMatched(&ParseSuseRelease, "VERSION = 12\n");
  ExpectNotMatched(&ParseSuseRelease, "\nVERSION = 12\n");
  ExpectNotMatched(&ParseSuseRelease, "SUSE\nPATCHLEVEL = 3\n");
  ExpectNotMatched(&ParseSuseRelease, "SUSE\nVERSION 12\n");
  ExpectNotMatched(&ParseSuseRelease, "SUSE\nversion = 12\n");
}

}  // namespace
}  // namespace qor
