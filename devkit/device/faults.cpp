#include "devkit/device/faults.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <utility>

#include "devkit/device/device.h"

namespace desk {
namespace {

constexpr int kMostErrors = 134;
constexpr char kAny[] = "*";
constexpr size_t kMostMet = 1000;

bool IsFileFunction(const std::string& name) {
  constexpr std::array kNames = {"fopen", "read", "write", "writev", "rename", "unlink", "chmod"};
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
  if (text == kFail) return text;
  if (IsFileFunction(operation)) return ErrorNumber(text);
  if (text == kThrow) return text;

  Json::Value result;
  std::string problem;
  if (!ParseJson(text, result, problem)) return std::nullopt;
  return result;
}

/// Takes "@N" or "@N+" off the end of `text` into the first and the last call that a fault is for.
void TakeCalls(std::string& text, unsigned& first, unsigned& last) {
  const size_t at = text.rfind('@');
  if (at == std::string::npos) return;
  const char* end = text.data() + text.size();
  unsigned call = 0;
  const auto number = std::from_chars(text.data() + at + 1, end, call);
  const bool onwards = number.ptr + 1 == end && *number.ptr == '+';
  if (number.ec != std::errc() || (number.ptr != end && !onwards)) return;  // an @ of the result's own
  if (call == 0) throw std::invalid_argument("calls are counted from 1");
  first = call;
  if (!onwards) last = call;
  text.resize(at);
}

}  // namespace

void Faults::Add(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == 0 || equals == std::string::npos) {
    throw std::invalid_argument("'" + text + "' is no fault; write OPERATION=RESULT, OPERATION=RESULT@N or ...@N+");
  }
  Fault fault{text, text.substr(0, equals), Json::Value(), 1, std::numeric_limits<unsigned>::max()};
  std::string result_text = text.substr(equals + 1);
  TakeCalls(result_text, fault.first, fault.last);
  const std::optional<Json::Value> result = ParseResult(fault.operation, result_text);
  if (!result) {
    throw std::invalid_argument(
        "the result of the fault '" + text + "' is neither 'fail' nor " +
        (IsFileFunction(fault.operation) ? "the name of an error such as ENOSPC" : "'throw' nor JSON"));
  }
  fault.result = *result;

  const std::lock_guard lock(mutex_);
  faults_.push_back(std::move(fault));
}

void Faults::Clear() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
  calls_.clear();
  met_.clear();
}

std::optional<Json::Value> Faults::Take(const std::string& operation) {
  const std::lock_guard lock(mutex_);
  const unsigned call = ++calls_[operation];
  const unsigned any_call = operation.rfind("APIResponse", 0) == 0 ? 0 : ++calls_[kAny];
  for (Fault& fault : faults_) {
    const unsigned number = fault.operation == operation ? call : fault.operation == kAny ? any_call : 0;
    if (number == 0 || number < fault.first || number > fault.last) continue;
    fault.met = true;
    if (met_.size() < kMostMet) met_.push_back(operation);
    return fault.result;
  }
  return std::nullopt;
}

std::vector<std::string> Faults::Met() const {
  const std::lock_guard lock(mutex_);
  return met_;
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
