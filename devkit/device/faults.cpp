#include "devkit/device/faults.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <utility>

#include "devkit/device/json.h"
#include "devkit/device/operations.h"

namespace desk {
namespace {

constexpr size_t kMostFaults = 1000;
constexpr size_t kMostBytes = 64 << 10;

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

Faults::Fault Faults::Parse(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == 0 || equals == std::string::npos) {
    throw std::invalid_argument("'" + text + "' is no fault; write OPERATION=RESULT, OPERATION=RESULT@N or ...@N+");
  }
  Fault fault{text, text.substr(0, equals), Json::Value(), 1, std::numeric_limits<unsigned>::max()};
  std::string result = text.substr(equals + 1);
  TakeCalls(result, fault.first, fault.last);
  fault.result = ParseResult(fault.operation, result);
  return fault;
}

unsigned Faults::Add(const std::string& text) {
  if (text.size() > kMostBytes) throw std::invalid_argument("a fault has 64 KiB at most");
  Fault fault = Parse(text);
  const std::lock_guard lock(mutex_);
  if (faults_.size() == kMostFaults) throw std::invalid_argument("there are a thousand faults; remove some");
  fault.id = ++last_id_;
  faults_.push_back(std::move(fault));
  return last_id_;
}

bool Faults::Remove(unsigned id) {
  const std::lock_guard lock(mutex_);
  const auto fault = std::find_if(faults_.begin(), faults_.end(), [id](const Fault& item) { return item.id == id; });
  if (fault == faults_.end()) return false;
  faults_.erase(fault);
  return true;
}

void Faults::Clear() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
}

std::optional<Faults::Injection> Faults::Take(const std::string& operation) {
  const bool answers = operation.rfind("APIResponse", 0) == 0;
  const std::lock_guard lock(mutex_);
  Fault* taken = nullptr;
  for (Fault& fault : faults_) {
    const bool meant = fault.operation == operation || (fault.operation == kAnyOperation && !answers);
    if (!meant || ++fault.calls < fault.first || fault.calls > fault.last || taken != nullptr) continue;
    taken = &fault;
  }
  if (taken == nullptr) return std::nullopt;
  ++taken->met;
  return Injection{taken->result, taken->text};
}

Json::Value Faults::List() const {
  const std::lock_guard lock(mutex_);
  Json::Value list(Json::arrayValue);
  for (const Fault& fault : faults_) {
    list.append(Object({{"id", fault.id}, {"fault", fault.text}, {"met", fault.met}}));
  }
  return list;
}

std::vector<std::string> Faults::Unmet() const {
  std::vector<std::string> unmet;
  for (const Json::Value& fault : List()) {
    if (fault["met"] == 0U) unmet.push_back(fault["fault"].asString());
  }
  return unmet;
}

}  // namespace desk
