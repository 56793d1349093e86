#include "devkit/device/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace desk {
namespace {

bool ParseOnce(const std::string& text, Json::Value& value, std::string& problem) {
  static const Json::CharReaderBuilder builder = [] {
    Json::CharReaderBuilder made;
    Json::CharReaderBuilder::strictMode(&made.settings_);
    made["strictRoot"] = false;
    return made;
  }();
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &value, &problem);
  } catch (const Json::Exception& error) {
    problem = error.what();
    return false;
  }
}

/// Such a name would be checked whole and written up to the NUL byte.
bool HasNulInName(const Json::Value& value) {
  if (!value.isObject() && !value.isArray()) return false;
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (value.isObject() && item.name().find('\0') != std::string::npos) return true;
    if (HasNulInName(*item)) return true;
  }
  return false;
}

/// Empty when `text` is a document, which is then in `value`.
std::string FindProblem(const std::string& text, Json::Value& value) {
  if (text.find('\0') != std::string::npos) return "it holds a NUL byte";
  std::string problem;
  // jsoncpp calls a number broken for which it had no memory: the second attempt has it, or throws.
  if (ParseOnce(text, value, problem) || ParseOnce(text, value, problem)) return "";
  std::replace(problem.begin(), problem.end(), '\n', ' ');
  return problem;
}

}  // namespace

std::optional<Json::Value> TryParseJson(const std::string& text, std::string* problem) {
  std::optional<Json::Value> value(std::in_place);
  std::string found = FindProblem(text, *value);
  if (found.empty() && HasNulInName(*value)) found = "the name of a member holds a NUL byte";
  if (problem != nullptr) *problem = found;
  if (!found.empty()) value.reset();
  return value;
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  const std::string problem = FindProblem(text, value);
  if (!problem.empty()) throw std::logic_error("a text of the program's own is no JSON: " + problem);
  return value;
}

Json::Value Object(std::initializer_list<std::pair<std::string, Json::Value>> members) {
  Json::Value object(Json::objectValue);
  for (const auto& [name, value] : members) object[name] = value;
  return object;
}

std::string ToLine(const Json::Value& value) {
  static const Json::StreamWriterBuilder writer = [] {
    Json::StreamWriterBuilder made;
    made["indentation"] = "";
    return made;
  }();
  return Json::writeString(writer, value);
}

std::string Text(const Json::Value& object, const std::string& member) {
  return object.isObject() && object[member].isString() ? object[member].asString() : "";
}

}  // namespace desk
