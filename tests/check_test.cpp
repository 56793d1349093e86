// `webapi-host check`: finds the one rule that a module breaks, and nothing else.

#include <algorithm>
#include <sstream>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

class BrokenModule : public testing::TestWithParam<Row> {};

TEST_P(BrokenModule, IsFoundOutForItsRuleOnly) {
  const Finished check = RunHost("check --json --seed 1 --limit 3 '" BROKEN_MODULES "/" + GetParam()[0] + ".so'");
  EXPECT_EQ(check.code, std::stoi(GetParam()[1]));
  Names findings;
  std::istringstream lines(check.out);
  for (std::string text; std::getline(lines, text);) {
    const Json::Value line = ParseJson(text);
    if (line["ok"] == false) findings.push_back(line["subject"].asString() + " " + line["check"].asString());
  }
  EXPECT_EQ(findings, Parts(GetParam()[2])) << check.out;
}

INSTANTIATE_TEST_SUITE_P(Rules, BrokenModule, testing::ValuesIn(ReadTable("findings.txt")), NameOfRow);

class OurModule : public testing::TestWithParam<const char*> {};

TEST_P(OurModule, PassesEveryCheck) {
  const Finished check = RunHost("check '" MODULE_FILE "' --seed " + std::string(GetParam()));
  EXPECT_EQ(check.code, 0) << check.out;
  const std::string verdict = "95 checks, 0 failures, seed " + std::string(GetParam()) + "\n";
  EXPECT_EQ(check.out.substr(check.out.rfind('\n', check.out.size() - 2) + 1), verdict);
}

INSTANTIATE_TEST_SUITE_P(Seeds, OurModule, testing::Values("1", "2", "4294967295"));

TEST(Check, ASeedRepeatsARun) {
  const std::string words = "check '" BROKEN_MODULES "/kCrashes.so' --json --seed ";
  const Finished check = RunHost(words + "7");
  EXPECT_EQ(check.out.substr(0, check.out.find('\n')), R"({"seed":7})");
  EXPECT_EQ(RunHost(words + "7").out, check.out);
  const auto findings = [](const std::string& out) { return out.substr(10, out.rfind("{\"checks\"") - 10); };
  EXPECT_NE(findings(RunHost(words + "8").out), findings(check.out));
}

}  // namespace
}  // namespace desk
