#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>

#include "devkit/device/operations.h"
#include "devkit/webapi/description.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

/// Takes the place of any other code when the caller loses the right during the call.
constexpr int kNotAdministrator = 105;

/// What this process has seen of the description, for whole_run_test.sh.
std::set<std::string> seen;

class Notes : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& test) override {
    seen.insert(std::string("ran ") + test.test_suite_name() + "." + test.name());
  }
  void OnTestProgramEnd(const testing::UnitTest&) override {
    std::filesystem::create_directories(NOTES);
    std::ofstream file(NOTES "/" + std::to_string(getpid()), std::ios::app);
    for (const std::string& item : seen) file << item << '\n';
  }
};

const bool takes_notes = (testing::UnitTest::GetInstance()->listeners().Append(new Notes), true);

/// The element whose `member` has this value; null when there is none.
const Json::Value& Find(const Json::Value& array, const char* member, const Json::Value& value) {
  for (const Json::Value& element : array) {
    if (element[member] == value) return element;
  }
  return Json::Value::nullSingleton();
}

bool Contains(const Json::Value& array, const Json::Value& value) {
  return std::find(array.begin(), array.end(), value) != array.end();
}

/// Throws `std::out_of_range` for a type that it does not know.
bool HasType(const Json::Value& value, const std::string& type) {
  static const std::map<std::string, bool (Json::Value::*)() const> types = {
      {"object", &Json::Value::isObject}, {"array", &Json::Value::isArray},   {"string", &Json::Value::isString},
      {"boolean", &Json::Value::isBool},  {"integer", &Json::Value::isInt64}, {"null", &Json::Value::isNull}};
  return (value.*types.at(type))();
}

std::string MemberViolation(const Json::Value& schema, const Json::Value& object) {
  std::string problems;
  for (const Json::Value& name : schema["required"]) {
    if (!object.isMember(name.asString())) problems += " lacks " + name.asString();
  }
  for (const std::string& name : object.getMemberNames()) {
    const bool known = schema["properties"].isMember(name);
    if (!known && schema["additionalProperties"] == false) problems += " has " + name;
    const std::string problem = known ? Violation(schema["properties"][name], object[name]) : "";
    if (!problem.empty()) problems.append(" ").append(name).append(problem);
  }
  return problems;
}

/// Whether `line` is the text of a log line, whatever stands for its placeholders.
bool IsText(const std::string& text, const std::string& line) {
  std::string pattern;
  for (size_t at = 0; at < text.size(); ++at) {
    if (std::strchr("[]*?\\", text[at]) != nullptr) pattern += '\\';
    pattern += text[at] == '%' ? '*' : text[at];
    if (text[at] == '%') ++at;
  }
  return fnmatch(pattern.c_str(), line.c_str(), 0) == 0;
}

/// Whether the operation can be made to fail, in the types of its result and outputs, unless it cannot fail.
void CheckOperation(const Json::Value& line) {
  const std::string name = line["op"].asString();
  if (name == "syslog" || name == "usleep" || name == "regfree") return;
  ASSERT_TRUE(Operations().isMember(name)) << name;
  for (const std::string& output : line["out"].getMemberNames()) {
    EXPECT_TRUE(Operations()[name].isMember(output)) << name << output;
  }
  const std::string type = Operations()[name]["result"].asString();
  if (type == "error" || type == "nothing" || type == "any" || !line.isMember("result")) return;
  EXPECT_TRUE(HasType(line["result"], type) || line["result"] == "(hidden)") << ToLine(line);
}

void CheckLog(const Json::Value& method, const std::string& line, int code) {
  const Json::Value& known = FindLogLine(line);
  const std::string id = known["subject"].asString();
  EXPECT_TRUE(IsText(id + " " + known["text"].asString(), line)) << line;
  EXPECT_TRUE(Contains(method["x-log-lines"], id)) << line;
  EXPECT_TRUE(known["codes"].empty() || Contains(known["codes"], code) || code == kNotAdministrator) << line << code;
  seen.insert(method["name"].asString() + " " + id);
}

}  // namespace

std::string Violation(const Json::Value& schema, const Json::Value& value) {
  static const std::set<std::string> keywords = {
      "type", "const", "items", "description", "properties", "required", "additionalProperties"};
  for (const std::string& keyword : schema.getMemberNames()) {
    if (keywords.count(keyword) == 0) throw std::logic_error("the checker does not know the keyword " + keyword);
  }
  if (schema.isMember("type") && !HasType(value, schema["type"].asString())) return " is no " + ToLine(schema["type"]);
  if (schema.isMember("const") && value != schema["const"]) return " is not " + ToLine(schema["const"]);
  if (value.isObject()) return MemberViolation(schema, value);
  std::string problems;
  for (const Json::Value& item : value) problems += Violation(schema["items"], item);
  return problems;
}

void CheckCall(const std::string& name, const Outcome& outcome, const std::vector<Json::Value>& trace) {
  const Json::Value& method = Find(Description()["methods"], "name", name);
  SCOPED_TRACE("the description of " + name);
  for (const Json::Value& line : trace) {
    const Json::Value& args = line["args"];
    const bool known = line["op"] != "APIRequest::HasParam" || Find(method["params"], "name", args[0]).isObject();
    EXPECT_TRUE(known) << ToLine(args);
    CheckOperation(line);
  }
  if (outcome.answers.empty()) return;
  const Answer& answer = outcome.answers[0];
  for (const std::string& line : outcome.log) CheckLog(method, line, answer.code);
  seen.insert(name + " " + std::to_string(answer.code));
  EXPECT_TRUE(answer.success || Find(method["errors"], "code", answer.code).isObject()) << answer.code;
  EXPECT_EQ(answer.success ? Violation(method["result"]["schema"], answer.data) : "", "") << ToLine(answer.data);
}

void CheckError(const Json::Value& error) {
  const std::string code = error["code"].asString();
  EXPECT_TRUE(Description()["components"]["errors"].isMember(code)) << code;
  EXPECT_NE(error["data"]["cause"].asString(), "") << code;
  EXPECT_NE(error["data"]["remedy"].asString(), "") << code;
  seen.insert("server " + code);
}

}  // namespace desk
