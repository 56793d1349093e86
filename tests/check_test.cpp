// `webapi-host check`: finds the one rule that a module breaks, and nothing else.

#include <algorithm>
#include <sstream>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

struct Case {
  const char* module;
  int code;
  /// "SUBJECT CHECK" of the check that does not hold; empty when all do.
  const char* finding;
};

void PrintTo(const Case& row, std::ostream* out) { *out << row.module; }

constexpr Case kCases[] = {
    {"kNone", 0, ""},
    {"kDiesLoading", 3, ""},
    {"kNoTable", 1, "module table"},
    {"kNoEndRow", 1, "module table"},
    {"kEndRowNotZero", 1, "module table"},
    {"kNoMethodName", 1, "module complete-rows"},
    {"kNoHandler", 1, "module complete-rows"},
    {"kRepeatedRow", 1, "module unique-rows"},
    {"kNewPointer", 1, "module same-pointer"},
    {"kNoGuard", 1, "Example/1/set guard"},
    {"kAsksBeforeGuard", 1, "Example/1/set guard"},
    {"kAsksRightOnce", 1, "Example/1/set guard"},
    {"kWrongDenial", 1, "Example/1/set guard"},
    {"kAnswersTwice", 1, "Example/1/set one-answer"},
    {"kNeverAnswers", 1, "Example/1/set one-answer"},
    {"kThrowsAfterAnswer", 1, "Example/1/set one-answer"},
    {"kAsksAfterAnswer", 1, "Example/1/set answer-last"},
    {"kErrorWithData", 1, "Example/1/set data"},
    {"kPayloadNoObject", 1, "Example/1/get data"},
    {"kCrashes", 1, "Example/1/set returns"},
    {"kLoops", 1, "Example/1/set returns"},
    {"kExits", 1, "Example/1/set returns"},
    {"kLeavesFileOpen", 1, "Example/1/set descriptors"},
    {"kLeavesThread", 1, "Example/1/set threads"},
};

class BrokenModule : public testing::TestWithParam<Case> {};

TEST_P(BrokenModule, IsFoundOutForItsRuleOnly) {
  const Case& row = GetParam();
  const Finished check =
      RunHost("check --json --seed 1 --limit 3 " BROKEN_MODULES "/" + std::string(row.module) + ".so");
  EXPECT_EQ(check.code, row.code);
  std::string findings;
  std::istringstream lines(check.out);
  for (std::string text; std::getline(lines, text);) {
    const Json::Value line = ParseJson(text);
    if (line["ok"] == false) findings += line["subject"].asString() + " " + line["check"].asString();
  }
  EXPECT_EQ(findings, row.finding) << check.out;
}

INSTANTIATE_TEST_SUITE_P(Rules, BrokenModule, testing::ValuesIn(kCases),
                         [](const auto& row) { return row.param.module; });

class OurModule : public testing::TestWithParam<const char*> {};

TEST_P(OurModule, PassesEveryCheck) {
  const Finished check = RunHost("check " MODULE_FILE " --seed " + std::string(GetParam()));
  EXPECT_EQ(check.code, 0) << check.out;
  EXPECT_EQ(std::count(check.out.begin(), check.out.end(), '\n'), 1 + 6 + 11 * 7) << check.out;
}

INSTANTIATE_TEST_SUITE_P(Seeds, OurModule, testing::Values("1", "2", "4294967295"));

TEST(Check, ASeedRepeatsARun) {
  const std::string words = "check " BROKEN_MODULES "/kCrashes.so --json --seed ";
  const Finished check = RunHost(words + "7");
  EXPECT_EQ(check.out.substr(0, check.out.find('\n')), R"({"seed":7})");
  EXPECT_EQ(RunHost(words + "7").out, check.out);
  EXPECT_NE(RunHost(words + "8").out.substr(10), check.out.substr(10));
}

TEST(Check, AMistakeOfTheCallerHasItsExitCode) {
  EXPECT_EQ(RunHost("check 2>/dev/null").code, 2);
  EXPECT_EQ(RunHost("check " MODULE_FILE " --limit 0 2>/dev/null").code, 2);
  EXPECT_EQ(RunHost("check /nowhere.so 2>/dev/null").code, 3);
}

}  // namespace
}  // namespace desk
