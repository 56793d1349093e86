// `webapi-host check`: finds the one rule that a module breaks, and nothing else.

#include "tests/desk_fixture.h"

namespace desk {
namespace {

class BrokenModule : public testing::TestWithParam<Row> {};

TEST_P(BrokenModule, IsFoundOutForItsRuleOnly) {
  const Finished check = RunHost("check --json --seed 1 --limit 3 '" BROKEN_MODULES "/" + GetParam()[0] + ".so'");
  EXPECT_EQ(check.code, std::stoi(GetParam()[1]));
  Names findings;
  for (const std::string& text : Split(check.out, "\n")) {
    const Json::Value line = TryParseJson(text).value_or(Json::objectValue);
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
  const auto find = [](const std::string& seed) {
    const std::string out = RunHost("check '" BROKEN_MODULES "/kCrashes.so' --json --seed " + seed).out;
    EXPECT_EQ(out.rfind("{\"seed\":" + seed + "}\n", 0), 0u) << out;
    return out.substr(10, out.rfind("{\"checks\"") - 10);
  };
  EXPECT_EQ(find("7"), find("7"));
  EXPECT_NE(find("8"), find("7"));
}

}  // namespace
}  // namespace desk
