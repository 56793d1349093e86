#include "tests/description_check.h"

#include <fnmatch.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

#include "devkit/device/trace.h"
#include "devkit/webapi/description.h"

namespace desk {
namespace {

/// Takes the place of any other code when the caller loses the right during the call.
constexpr int kLostRight = 105;

/// What this process has seen of the description, for the test that comes after all others.
std::set<std::string> seen;

class Notes : public testing::EmptyTestEventListener {
  void OnTestEnd(const testing::TestInfo& test) override {
    seen.insert(std::string("ran ") + test.test_suite_name() + "." + test.name());
  }
  void OnTestProgramEnd(const testing::UnitTest&) override {
    std::filesystem::create_directories(SEEN_FOLDER);
    std::ofstream file(SEEN_FOLDER "/" + std::to_string(getpid()), std::ios::app);
    for (const std::string& item : seen) file << item << '\n';
  }
};

const bool takes_notes = (testing::UnitTest::GetInstance()->listeners().Append(new Notes), true);

bool Contains(const Json::Value& array, const Json::Value& value) {
  return std::find(array.begin(), array.end(), value) != array.end();
}

bool HasType(const Json::Value& value, const std::string& type) {
  if (type == "object") return value.isObject();
  if (type == "array") return value.isArray();
  if (type == "string") return value.isString();
  if (type == "boolean") return value.isBool();
  if (type == "integer") return value.isInt64();
  if (type == "null") return value.isNull();
  throw std::logic_error("the checker does not know the type " + type);
}

std::string MemberViolation(const Json::Value& schema, const Json::Value& object) {
  if (!object.isObject()) return "";
  for (const Json::Value& name : schema["required"]) {
    if (!object.isMember(name.asString())) return "lacks " + name.asString();
  }
  for (const std::string& name : object.getMemberNames()) {
    const bool known = schema["properties"].isMember(name);
    if (!known && schema["additionalProperties"] == false) return "has " + name;
    const std::string problem = known ? Violation(schema["properties"][name], object[name]) : "";
    if (!problem.empty()) return name + " " + problem;
  }
  return "";
}

/// Whether `message` is the text of a log line, whatever stands for its placeholders.
bool IsText(const std::string& text, const std::string& message) {
  std::string pattern;
  for (size_t at = 0; at < text.size(); ++at) {
    if (std::strchr("[]*?\\", text[at]) != nullptr) pattern += '\\';
    pattern += text[at] == '%' ? '*' : text[at];
    if (text[at] == '%') ++at;
  }
  return fnmatch(pattern.c_str(), message.c_str(), 0) == 0;
}

/// The description of a line as logged; null when there is none with its unit, number and text.
const Json::Value& FindLine(const std::string& logged) {
  for (const Json::Value& line : Description()["x-log-lines"]) {
    const std::string id = line["unit"].asString() + ":" + line["number"].asString() + " ";
    if (logged.rfind(id, 0) == 0 && IsText(line["text"].asString(), logged.substr(id.size()))) return line;
  }
  return Json::Value::nullSingleton();
}

void CheckLog(const Json::Value& method, const Answer& answer, const std::string& logged) {
  const Json::Value& line = FindLine(logged);
  const std::string id = logged.substr(0, logged.find(' '));
  EXPECT_TRUE(line.isObject()) << logged;
  EXPECT_TRUE(Contains(method["x-log-lines"], id)) << logged;
  const bool may_lead = line["codes"].empty() || answer.code == kLostRight || Contains(line["codes"], answer.code);
  EXPECT_TRUE(may_lead) << logged << " led to " << answer.code;
  seen.insert(method["name"].asString() + " " + id);
}

void CheckAnswer(const Json::Value& method, const Answer& answer) {
  if (answer.success) {
    EXPECT_EQ(Violation(Follow(method["result"])["schema"], answer.data), "") << ToLine(answer.data);
    return;
  }
  const Json::Value& errors = method["errors"];
  EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [&](const Json::Value& error) {
    return Follow(error)["code"] == answer.code;
  })) << answer.code;
  seen.insert(method["name"].asString() + " " + std::to_string(answer.code));
}

/// The empty name stands for all parameters.
void CheckParameter(const Json::Value& method, const std::string& asked) {
  bool known = asked.empty();
  for (const Json::Value& parameter : method["params"]) {
    const std::string name = Follow(parameter)["name"].asString();
    known = known || name == asked;
    if (asked.empty() || name == asked) seen.insert(method["name"].asString() + " " + name);
  }
  EXPECT_TRUE(known) << asked;
}

}  // namespace

const Json::Value& Follow(const Json::Value& value) {
  if (!value.isObject() || !value.isMember("$ref")) return value;
  const Json::Value* target = &Description();
  const std::string path = value["$ref"].asString();
  for (size_t slash = path.find('/'); slash != std::string::npos;) {
    const size_t next = path.find('/', slash + 1);
    target = &(*target)[path.substr(slash + 1, next - slash - 1)];
    slash = next;
  }
  if (target->isNull()) throw std::logic_error("the reference " + path + " leads nowhere");
  return *target;
}

std::string Violation(const Json::Value& schema_or_reference, const Json::Value& value) {
  static const std::set<std::string> known = {"type",     "const",      "description",         "items",
                                              "required", "properties", "additionalProperties"};
  const Json::Value& schema = Follow(schema_or_reference);
  for (const std::string& keyword : schema.getMemberNames()) {
    if (known.count(keyword) == 0) throw std::logic_error("the checker does not know the keyword " + keyword);
  }
  if (schema.isMember("type") && !HasType(value, schema["type"].asString()))
    return "is no " + schema["type"].asString();
  if (schema.isMember("const") && value != schema["const"]) return "is not " + ToLine(schema["const"]);
  for (const Json::Value& item : schema.isMember("items") ? value : Json::Value()) {
    const std::string problem = Violation(schema["items"], item);
    if (!problem.empty()) return "an item " + problem;
  }
  return MemberViolation(schema, value);
}

void CheckCall(const std::string& name, const Outcome& outcome, const std::vector<Json::Value>& trace) {
  const Json::Value& methods = Description()["methods"];
  const auto method =
      std::find_if(methods.begin(), methods.end(), [&](const auto& other) { return other["name"] == name; });
  SCOPED_TRACE("the description of " + name);
  ASSERT_NE(method, methods.end());
  for (const Json::Value& line : trace) {
    if (line["op"] == "APIRequest::HasParam" || line["op"] == "APIRequest::GetParam") {
      CheckParameter(*method, line["args"][0].asString());
    }
    if (line["op"] == "syslog" && !outcome.answers.empty()) {
      CheckLog(*method, outcome.answers.front(), line["args"][1].asString());
    }
  }
  if (!outcome.answers.empty()) CheckAnswer(*method, outcome.answers.front());
}

void CheckError(const Json::Value& error) {
  const std::string code = error["code"].asString();
  EXPECT_TRUE(Description()["components"]["errors"].isMember(code)) << code;
  EXPECT_FALSE(error["data"]["cause"].asString().empty() || error["data"]["remedy"].asString().empty()) << code;
  seen.insert("server " + code);
}

}  // namespace desk
