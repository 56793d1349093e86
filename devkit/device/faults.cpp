#include "devkit/device/faults.h"

#include <json/reader.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <regex>
#include <stdexcept>
#include <utility>

namespace desk {
namespace {

constexpr int kMostErrors = 134;

bool IsFileFunction(const std::string& name) {
  constexpr std::array kNames = {"fopen", "rename", "unlink", "chmod"};
  return std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

std::optional<int> ErrorNumber(const std::string& name) {
  for (int number = 1; number < kMostErrors; ++number) {
    const char* known = strerrorname_np(number);
    if (known != nullptr && name == known) return number;
  }
  return std::nullopt;
}

std::optional<Json::Value> ParseResult(const std::string& operation, const std::string& text) {
  if (text == kThrow) return kThrow;
  if (IsFileFunction(operation)) return ErrorNumber(text);

  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value result;
  if (!reader->parse(text.data(), text.data() + text.size(), &result, nullptr)) return std::nullopt;
  return result;
}

unsigned Count(const std::string& digits) {
  const unsigned long count = digits.size() > 6 ? 0 : std::stoul(digits);
  if (count == 0) throw std::invalid_argument("the call number must lie between 1 and 999999");
  return static_cast<unsigned>(count);
}

}  // namespace

void Faults::Add(const std::string& text) {
  static const std::regex kForm(R"(([^=\s]+)=(.+?)(?:@(\d+)(\+)?)?)");
  std::smatch parts;
  if (!std::regex_match(text, parts, kForm)) {
    throw std::invalid_argument("'" + text + "' is no fault; write OPERATION=RESULT, OPERATION=RESULT@N or ...@N+");
  }
  const std::optional<Json::Value> result = ParseResult(parts[1], parts[2]);
  if (!result) {
    throw std::invalid_argument("the result of the fault '" + text + "' is neither " +
                                (IsFileFunction(parts[1]) ? "the name of an error such as ENOSPC" : "JSON") +
                                " nor 'throw'");
  }
  Fault fault{text, parts[1], *result, 1, std::numeric_limits<unsigned>::max()};
  if (parts[3].matched) fault.first = Count(parts[3]);
  if (parts[3].matched && !parts[4].matched) fault.last = fault.first;

  const std::lock_guard lock(mutex_);
  faults_.push_back(std::move(fault));
}

void Faults::Clear() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
  calls_.clear();
}

std::optional<Json::Value> Faults::Take(const std::string& operation) {
  const std::lock_guard lock(mutex_);
  const unsigned call = ++calls_[operation];
  for (Fault& fault : faults_) {
    if (fault.operation != operation || call < fault.first || call > fault.last) continue;
    fault.met = true;
    return fault.result;
  }
  return std::nullopt;
}

std::vector<std::string> Faults::Unmet() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> unmet;
  for (const Fault& fault : faults_) {
    if (!fault.met) unmet.push_back(fault.text);
  }
  return unmet;
}

}  // namespace desk
