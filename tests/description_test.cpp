// The description of the web API: that it holds, that it helps, and that it promises nothing that no test sees.

#include "devkit/webapi/description.h"

#include <fstream>
#include <set>

#include "tests/description_check.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

using DescriptionTest = DeskTest;

/// Parameters of an example by name.
Json::Value Example(const Json::Value& pairing) {
  Json::Value params(Json::objectValue);
  for (const Json::Value& example : pairing["params"]) params[example["name"].asString()] = example["value"];
  return params;
}

class ExampleTest : public DeskTest, public testing::WithParamInterface<Json::ArrayIndex> {};

/// On a new device, each example comes to its result; without a required parameter it comes to 2901.
TEST_P(ExampleTest, ComesToItsResult) {
  const Json::Value& method = Description()["methods"][GetParam()];
  const std::string name = method["name"].asString().substr(std::string("VEXA.Core.TunnelBridge/").size());
  StartControlServer();
  ASSERT_FALSE(method["examples"].empty());
  for (const Json::Value& pairing : method["examples"]) {
    const Json::Value params = Example(Follow(pairing));
    EXPECT_EQ(CallMethod(name, ToLine(params)).data, Follow(pairing)["result"]["value"]);
    for (const Json::Value& parameter : method["params"]) {
      const Json::Value& described = Follow(parameter);
      const std::string member = described["name"].asString();
      Json::Value fewer = params;
      if (!params.isMember(member)) continue;
      EXPECT_EQ(Violation(described["schema"], params[member]), "");
      fewer.removeMember(member);
      EXPECT_EQ(CallMethod(name, ToLine(fewer)).code, described["required"].asBool() ? 2901 : 0) << member;
    }
  }
}

/// Holds the keywords of a schema, however deep, to those that are checked.
void ExpectChecked(const Json::Value& schema) {
  EXPECT_NO_THROW(Violation(schema, Json::Value()));
  for (const Json::Value& property : Follow(schema)["properties"]) ExpectChecked(property);
  if (schema.isMember("items")) ExpectChecked(schema["items"]);
}

TEST(Description, PromisesNothingThatIsNotChecked) {
  std::set<std::string> reached;
  for (const Json::Value& method : Description()["methods"]) {
    ExpectChecked(Follow(method["result"])["schema"]);
    for (const Json::Value& parameter : method["params"]) ExpectChecked(Follow(parameter)["schema"]);
    for (const Json::Value& line : method["x-log-lines"]) reached.insert(line.asString());
    for (const Json::Value& error : method["errors"]) {
      const Json::Value& general = Description()["components"]["errors"][Follow(error)["code"].asString()];
      EXPECT_EQ(Follow(error)["message"], general["message"]);
    }
  }
  for (const Json::Value& line : Description()["x-log-lines"]) {
    const std::string id = line["unit"].asString() + ":" + line["number"].asString();
    EXPECT_EQ(reached.count(id) == 0, line["unreachable"].asBool()) << id;
  }
  EXPECT_THROW(Violation(ParseJson(R"({"items": {"maximum": 7}})"), ParseJson("[1]")), std::logic_error);
}

TEST_F(DescriptionTest, ExplainKnowsEveryCodeAndEveryLine) {
  std::set<std::string> subjects;
  for (const Json::Value& error : Description()["components"]["errors"]) subjects.insert(error["code"].asString());
  for (const Json::Value& line : Description()["x-log-lines"]) {
    const std::string id = line["unit"].asString() + ":" + line["number"].asString();
    EXPECT_TRUE(subjects.insert(id).second) << id << " stands there twice";
    EXPECT_EQ(FindLogLine("desk[7]: " + id + " " + line["text"].asString())["subject"], id);
    EXPECT_TRUE(FindLogLine(id + " no text of ours").isNull() || line["text"] == "") << id;
  }
  for (const std::string& subject : subjects) {
    const Json::Value explanations = Explanations(subject);
    EXPECT_FALSE(explanations.empty()) << subject;
    for (const Json::Value& explanation : explanations) {
      EXPECT_EQ(explanation["subject"], subject);
      for (const char* member : {"text", "cause", "remedy"}) EXPECT_NE(explanation[member].asString(), "") << subject;
    }
  }
}

TEST_F(DescriptionTest, ExplainAnswersInWordsAndInJson) {
  const Finished code = RunHost("explain -32601");
  EXPECT_EQ(code.code, 0);
  EXPECT_NE(code.out.find("\n  remedy: Write the name as API/VERSION/METHOD"), std::string::npos) << code.out;
  EXPECT_EQ(RunHost("explain utils:46 2>&1").out, "webapi-host: nothing is known of 'utils:46'\n");
  EXPECT_EQ(RunHost("explain utils:46 2>&1").code, 1);
  EXPECT_EQ(ParseJson(RunHost("explain 2904 --json").out)["lines"].size(), 2u);

  Write("log", "utils:45 is another's\n12:00:00 desk utils:45 cannot get a run key\n");
  const std::string log = " <'" + Path("log").string() + "'";
  const std::string advice = Explanations("utils:45")[0]["cause"].asString();
  EXPECT_EQ(RunHost("explain" + log).out.rfind(Read("log") + "  cause:  " + advice + "\n  remedy: ", 0), 0u);
  EXPECT_EQ(RunHost("explain </dev/null 2>/dev/null").code, 1);
}

TEST_F(DescriptionTest, DescribeShowsWhatTheModuleHas) {
  const Json::Value all = ParseJson(RunHost("describe").out);
  EXPECT_EQ(all["methods"].size(), TheModule().Rows().size());
  EXPECT_FALSE(all.isMember("x-undescribed"));
}

/// What the tests saw, in whichever processes they ran.
std::set<std::string> ReadNotes() {
  std::set<std::string> notes;
  std::error_code none;
  for (const auto& entry : std::filesystem::directory_iterator(SEEN_FOLDER, none)) {
    std::ifstream file(entry.path());
    for (std::string item; std::getline(file, item);) notes.insert(item);
  }
  return notes;
}

/// Runs when the others have run, and is skipped when some have not.
TEST(WholeRun, SawAllOfTheDescription) {
  const std::set<std::string> seen = ReadNotes();
  const testing::UnitTest& tests = *testing::UnitTest::GetInstance();
  for (int number = 0; number < tests.total_test_suite_count(); ++number) {
    const testing::TestSuite& suite = *tests.GetTestSuite(number);
    for (int test = 0; test < suite.total_test_count() && suite.name() != std::string("WholeRun"); ++test) {
      const std::string name = std::string(suite.name()) + "." + suite.GetTestInfo(test)->name();
      if (seen.count("ran " + name) == 0) GTEST_SKIP() << name << " has not run";
    }
  }
  for (const Json::Value& method : Description()["methods"]) {
    std::vector<std::string> promises;
    for (const Json::Value& line : method["x-log-lines"]) promises.push_back(line.asString());
    for (const Json::Value& error : method["errors"]) promises.push_back(Follow(error)["code"].asString());
    for (const Json::Value& parameter : method["params"]) promises.push_back(Follow(parameter)["name"].asString());
    for (const std::string& promise : promises) {
      EXPECT_EQ(seen.count(method["name"].asString() + " " + promise), 1u)
          << method["name"].asString() << " " << promise;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Each, ExampleTest, testing::Range(0u, Description()["methods"].size()));

}  // namespace
}  // namespace desk
