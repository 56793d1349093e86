#include "devkit/host/explain.h"

#include <iostream>

#include "devkit/device/trace.h"
#include "devkit/webapi/description.h"

namespace desk {
namespace {

void PrintAdvice(std::ostream& out, const Json::Value& explanation) {
  out << "  cause:  " << explanation["cause"].asString() << "\n  remedy: " << explanation["remedy"].asString() << '\n';
}

void PrintWords(std::ostream& out, const Json::Value& explanation) {
  out << explanation["subject"].asString() << "  " << explanation["text"].asString() << '\n';
  if (explanation.isMember("method")) out << "  of:     " << explanation["method"].asString() << '\n';
  PrintAdvice(out, explanation);
  std::string separator = "  lines:  ";
  for (const Json::Value& line : explanation["lines"]) {
    out << separator << line.asString();
    separator = ", ";
  }
  if (explanation.isMember("lines")) out << '\n';
}

bool ExplainSubject(std::ostream& out, const ExplainOptions& options) {
  const Json::Value explanations = Explanations(options.subject);
  for (const Json::Value& explanation : explanations) {
    if (options.json) {
      out << ToLine(explanation) << '\n';
    } else {
      PrintWords(out, explanation);
    }
  }
  if (explanations.empty()) std::cerr << "webapi-host: nothing is known of '" << options.subject << "'\n";
  return !explanations.empty();
}

bool ExplainLog(std::ostream& out, bool json) {
  bool known = false;
  for (std::string text; std::getline(std::cin, text);) {
    Json::Value explanation = FindLogLine(text);
    known = known || explanation.isObject();
    if (json) {
      explanation["line"] = text;
      out << ToLine(explanation) << '\n';
    } else {
      out << text << '\n';
      if (explanation.isObject()) PrintAdvice(out, explanation);
    }
  }
  if (!known) std::cerr << "webapi-host: no line of the log is the module's\n";
  return known;
}

}  // namespace

bool ExplainTo(std::ostream& out, const ExplainOptions& options) {
  return options.subject.empty() ? ExplainLog(out, options.json) : ExplainSubject(out, options);
}

}  // namespace desk
