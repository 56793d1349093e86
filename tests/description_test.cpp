// The description of the web API: that it holds, that it helps, and that it promises nothing that is not checked.

#include "devkit/webapi/description.h"

#include <set>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

using DescriptionTest = DeskTest;
class ExampleTest : public DeskTest, public testing::WithParamInterface<Json::ArrayIndex> {};

/// On a new device each method's example comes to its result, and to 2901 without a required parameter.
TEST_P(ExampleTest, ComesToItsResult) {
  const Json::Value& method = Description()["methods"][GetParam()];
  const Json::Value& example = method["examples"][0];
  const std::string name = method["name"].asString().substr(FullName("").size());
  Json::Value params(Json::objectValue);
  for (const Json::Value& parameter : example["params"]) params[parameter["name"].asString()] = parameter["value"];
  StartControlServer();
  const Answer answer = CallMethod(name, ToLine(params));
  EXPECT_TRUE(answer.success);
  EXPECT_EQ(answer.data, example["result"]["value"]);
  for (const Json::Value& parameter : method["params"]) {
    Json::Value fewer = params;
    fewer.removeMember(parameter["name"].asString());
    EXPECT_EQ(CallMethod(name, ToLine(fewer)).code, parameter["required"].asBool() ? 2901 : 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Each, ExampleTest, testing::Range(0u, Description()["methods"].size()));

void ExpectChecked(const Json::Value& schema) {
  EXPECT_TRUE(schema.isObject());
  EXPECT_NO_THROW(Violation(schema, Json::Value()));
  for (const Json::Value& property : schema["properties"]) ExpectChecked(property);
  if (schema.isMember("items")) ExpectChecked(schema["items"]);
}

/// Returns how many explanations there are.
Json::ArrayIndex ExpectHelp(const std::string& subject) {
  for (const Json::Value& explanation : Explanations(subject)) {
    for (const char* member : {"text", "cause", "remedy"}) EXPECT_NE(explanation[member].asString(), "") << subject;
  }
  return Explanations(subject).size();
}

TEST(Description, PromisesNothingThatIsNotChecked) {
  std::set<std::string> reached;
  for (const Json::Value& method : Description()["methods"]) {
    ExpectChecked(method["result"]["schema"]);
    for (const Json::Value& parameter : method["params"]) ExpectChecked(parameter["schema"]);
    for (const Json::Value& line : method["x-log-lines"]) reached.insert(line.asString());
    for (const Json::Value& error : method["errors"]) EXPECT_EQ(error["message"], CodeText(error["code"].asInt()));
  }
  for (const std::string& code : Description()["components"]["errors"].getMemberNames()) ExpectHelp(code);
  for (const Json::Value& line : Description()["x-log-lines"]) {
    const std::string id = line["unit"].asString() + ":" + line["number"].asString();
    EXPECT_EQ(reached.count(id) == 0, line["unreachable"].asBool()) << id;
    EXPECT_EQ(ExpectHelp(id), 1u) << id << " stands there twice";
    const std::string logged = id + " " + line["text"].asString();
    EXPECT_EQ(FindLogLine("desk[7]: " + logged)["subject"], id);
    EXPECT_TRUE(FindLogLine("my." + logged + " " + id).isNull()) << id;
  }
  EXPECT_THROW(Violation(ParseJson(R"({"maximum": 7})"), 1), std::logic_error);
}

TEST_F(DescriptionTest, IsShownAsFarAsTheModuleGoes) {
  const Json::Value all = ParseJson(RunHost("describe").out);
  const Json::ArrayIndex desk = Description()["x-desk-methods"].size();
  EXPECT_EQ(all["methods"].size(), TheModule().Rows().size() + desk);
  EXPECT_FALSE(all.isMember("x-undescribed"));
  const Json::Value other = ParseJson(RunHost("describe --module '" BROKEN_MODULES "/kNone.so'").out);
  EXPECT_EQ(other["methods"].size(), desk);
  EXPECT_EQ(other["x-undescribed"], ParseJson(R"(["Example/1/get", "Example/1/set"])"));
}

TEST_F(DescriptionTest, ExplainsALogAsItStands) {
  Write("log", "utils:45 is another's\n12:00:00 desk utils:45 cannot get a run key\r\n");
  const std::string cause = Explanations("utils:45")[0]["cause"].asString();
  const std::string explained = RunHost("explain <'" + Path("log").string() + "'").out;
  EXPECT_EQ(explained.rfind(Read("log") + "  cause:  " + cause + "\n  remedy: ", 0), 0u) << explained;
}

}  // namespace
}  // namespace desk
