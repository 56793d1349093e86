#include "devkit/webapi/description.h"

#include <algorithm>
#include <map>

#include "devkit/device/json.h"

namespace desk {
namespace {

constexpr char kDocument[] =
#include "openrpc.inc"
    ;

/// Puts what references lead to in their place.
void Resolve(Json::Value& value, const Json::Value& document) {
  if (value.isObject() && value.isMember("$ref")) {
    std::string path = value["$ref"].asString().substr(1);
    std::replace(path.begin(), path.end(), '/', '.');
    value = Json::Path(path).resolve(document);
  }
  if (!value.isObject() && !value.isArray()) return;
  for (Json::Value& member : value) Resolve(member, document);
}

Json::Value LoadDescription() {
  Json::Value document = ParseJson(kDocument);
  Resolve(document, Json::Value(document));
  document.removeMember("x-texts");
  return document;
}

Json::Value Explain(const Json::Value& error) {
  const Json::Value& data = error["data"];
  return Object({{"subject", error["code"].asString()},
                 {"text", error["message"]},
                 {"cause", data["cause"]},
                 {"remedy", data["remedy"]}});
}

/// What is known, by subject.
Json::Value ExplainAll() {
  Json::Value known;
  const Json::Value& errors = Description()["components"]["errors"];
  for (const Json::Value& error : errors) known[error["code"].asString()].append(Explain(error));
  for (const Json::Value& method : Description()["methods"]) {
    for (const Json::Value& error : method["errors"]) {
      const std::string code = error["code"].asString();
      if (error != errors[code]) known[code].append(Explain(error))["method"] = method["name"];
    }
  }
  for (const Json::Value& line : Description()["x-log-lines"]) {
    const std::string unit = line["unit"].asString();
    const std::string id = unit + ":" + line["number"].asString();
    for (const Json::Value& code : line["codes"]) known[code.asString()][0]["lines"].append(id);
    const Json::Value explanation = Object({{"subject", id},
                                            {"text", line["text"]},
                                            {"cause", line["when"]},
                                            {"remedy", line["remedy"]},
                                            {"codes", line["codes"]}});
    for (const std::string& subject : {id, unit}) known[subject].append(explanation);
  }
  return known;
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
    const bool known = method != described.end();
    document[known ? "methods" : "x-undescribed"].append(known ? method->second : Json::Value(MethodName(row)));
  }
  for (const Json::Value& method : document["x-desk-methods"]) document["methods"].append(method);
  document.removeMember("x-desk-methods");
  return document;
}

const Json::Value& Explanations(const std::string& subject) {
  static const Json::Value known = ExplainAll();
  return known[subject];
}

const Json::Value& FindLogLine(const std::string& text) {
  constexpr char kUnitLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789.";
  for (size_t colon = text.find(':', 1); colon != std::string::npos; colon = text.find(':', colon + 1)) {
    const size_t begin = text.find_last_not_of(kUnitLetters, colon - 1) + 1;
    const size_t end = std::min(text.find_first_not_of("0123456789", colon + 1), text.size());
    const Json::Value& known = Explanations(text.substr(begin, end - begin));
    std::string words = known.empty() ? "" : " " + known[0]["text"].asString();
    words.resize(std::min(words.size(), words.find('%')));
    if (!known.empty() && text.compare(end, words.size(), words) == 0) return known[0];
  }
  return Json::Value::nullSingleton();
}

std::string CodeText(int code) {
  const Json::Value& known = Explanations(std::to_string(code));
  return known.empty() ? "error " + std::to_string(code) : known[0]["text"].asString();
}

Json::Value ErrorData(const std::string& method, int code, const std::vector<std::string>& log) {
  const Json::Value* best = nullptr;
  for (const Json::Value& known : Explanations(std::to_string(code))) {
    if (!known.isMember("method") || known["method"] == method) best = &known;
  }
  Json::Value data;
  data["log"] = Json::arrayValue;
  for (auto text = log.rbegin(); text != log.rend(); ++text) {
    const Json::Value& line = FindLogLine(*text);
    if (line["codes"].size() == 1 && line["codes"][0] == code) best = &line;
    data["log"].insert(0, *text);
  }
  for (const char* member : {"cause", "remedy"}) {
    if (best != nullptr) data[member] = (*best)[member];
  }
  return data;
}

}  // namespace desk
