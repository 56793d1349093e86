#include "devkit/webapi/description.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "devkit/device/device.h"

namespace desk {
namespace {

constexpr char kDocument[] =
#include "openrpc.inc"
    ;

/// Puts the shared texts where `value` refers to them.
void PutTexts(Json::Value& value, const Json::Value& texts) {
  const std::string prefix = "#/x-texts/";
  const std::string target = value.isObject() ? value.get("$ref", "").asString() : "";
  if (target.rfind(prefix, 0) == 0) value = texts[target.substr(prefix.size())];
  if (!value.isObject() && !value.isArray()) return;
  for (Json::Value& member : value) PutTexts(member, texts);
}

Json::Value LoadDescription() {
  Json::Value document;
  std::string problem;
  if (!ParseJson(kDocument, document, problem)) throw std::logic_error("the description is no JSON: " + problem);
  Json::Value texts;
  document.removeMember("x-texts", &texts);
  PutTexts(document, texts);
  return document;
}

const Json::Value& Lines() { return Description()["x-log-lines"]; }

std::string Id(const Json::Value& line) { return line["unit"].asString() + ":" + line["number"].asString(); }

const Json::Value* FindLine(const std::string& text) {
  static const auto by_id = [] {
    std::map<std::string, const Json::Value*> lines;
    for (const Json::Value& line : Lines()) lines[Id(line)] = &line;
    return lines;
  }();
  constexpr char kNameLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789.";
  for (size_t colon = text.find(':'); colon != std::string::npos; colon = text.find(':', colon + 1)) {
    if (colon == 0) continue;
    const size_t begin = text.find_last_not_of(kNameLetters, colon - 1) + 1;
    const size_t end = std::min(text.find_first_not_of("0123456789", colon + 1), text.size());
    const auto known = by_id.find(text.substr(begin, end - begin));
    if (known == by_id.end()) continue;
    const std::string words = " " + (*known->second)["text"].asString();
    if (text.compare(end, words.find('%'), words, 0, words.find('%')) == 0) return known->second;
  }
  return nullptr;
}

Json::Value ExplainLine(const Json::Value& line) {
  Json::Value explanation;
  explanation["subject"] = Id(line);
  explanation["text"] = line["text"];
  explanation["cause"] = line["when"];
  explanation["remedy"] = line["remedy"];
  return explanation;
}

Json::Value ExplainError(const Json::Value& error) {
  Json::Value explanation = error["data"];
  explanation["subject"] = error["code"].asString();
  explanation["text"] = error["message"];
  return explanation;
}

const Json::Value& FindError(const std::string& code) { return Description()["components"]["errors"][code]; }

/// The error `code` as the method means it.
const Json::Value& FindError(const std::string& method, int code) {
  for (const Json::Value& described : Description()["methods"]) {
    if (described["name"] != method) continue;
    for (const Json::Value& error : described["errors"]) {
      if (error["code"] == code) return error;
    }
  }
  return FindError(std::to_string(code));
}

Json::Value ExplainCode(const std::string& code) {
  Json::Value explanations(Json::arrayValue);
  if (!FindError(code).isObject()) return explanations;
  Json::Value general = ExplainError(FindError(code));
  for (const Json::Value& line : Lines()) {
    const bool leads = std::any_of(line["codes"].begin(), line["codes"].end(),
                                   [&](const Json::Value& other) { return other.asString() == code; });
    if (leads) general["lines"].append(Id(line));
  }
  explanations.append(general);
  for (const Json::Value& method : Description()["methods"]) {
    const Json::Value& error = FindError(method["name"].asString(), std::stoi(code));
    if (&error == &FindError(code)) continue;
    explanations.append(ExplainError(error))["method"] = method["name"];
  }
  return explanations;
}

}  // namespace

const Json::Value& Description() {
  static const Json::Value document = LoadDescription();
  return document;
}

Json::Value Describe(const Module& module) {
  Json::Value document = Description();
  std::map<std::string, Json::Value> described;
  for (const Json::Value& method : document["methods"]) described[method["name"].asString()] = method;
  document["methods"] = Json::arrayValue;
  for (const APITableEntry& row : module.Rows()) {
    const auto method = described.find(MethodName(row));
    if (method == described.end()) {
      document["x-undescribed"].append(MethodName(row));
    } else {
      document["methods"].append(method->second);
    }
  }
  return document;
}

Json::Value Explanations(const std::string& subject) {
  Json::Value explanations = ExplainCode(subject);
  for (const Json::Value& line : Lines()) {
    if (subject == Id(line) || subject == line["unit"].asString()) explanations.append(ExplainLine(line));
  }
  return explanations;
}

Json::Value FindLogLine(const std::string& text) {
  const Json::Value* line = FindLine(text);
  return line == nullptr ? Json::Value() : ExplainLine(*line);
}

std::string CodeText(int code) {
  return FindError(std::to_string(code)).get("message", "error " + std::to_string(code)).asString();
}

Json::Value ErrorData(const std::string& method, int code, const std::vector<std::string>& log) {
  Json::Value data = FindError(method, code)["data"];
  data["log"] = Json::arrayValue;
  bool special = false;
  for (const std::string& text : log) {
    data["log"].append(text);
    const Json::Value* line = FindLine(text);
    if (special || line == nullptr || (*line)["codes"].size() != 1 || (*line)["codes"][0] != code) continue;
    special = true;
    data["cause"] = (*line)["when"];
    data["remedy"] = (*line)["remedy"];
  }
  return data;
}

}  // namespace desk
