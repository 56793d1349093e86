#include "devkit/device/operation.h"

#include <unistd.h>

namespace desk {
namespace {

thread_local unsigned unrecorded = 0;

Json::Int64 Microseconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

}  // namespace

thread_local unsigned current_call = 0;
thread_local std::string current_method;
thread_local std::chrono::steady_clock::time_point current_begin;

Line::Line(const std::string& operation, Json::Value args) {
  Line& line = *this;
  line["call"] = current_call;
  if (!current_method.empty()) line["method"] = current_method;
  line["pid"] = getpid();
  line["at"] = Json::Int64(Device::Get().Now());
  line["from"] = Microseconds(start_ - current_begin);
  line["op"] = operation;
  line["args"] = std::move(args);
}

void Line::Record() {
  (*this)["us"] = Microseconds(std::chrono::steady_clock::now() - start_);
  Device::Get().trace.Record(std::move(line_));
}

Unrecorded::Unrecorded() { ++unrecorded; }

Unrecorded::~Unrecorded() { --unrecorded; }

Operation::Operation(std::string name, Json::Value args) : name_(std::move(name)) {
  if (unrecorded != 0) return;
  if (Device::Get().trace.Watches(name_)) line_.emplace(name_, std::move(args));
  auto injection = Device::Get().faults.Take(name_);
  if (!injection) return;
  fault_ = std::move(injection->result);
  if (line_) (*line_)["fault"] = injection->fault;
}

Operation::~Operation() {
  if (!line_) return;
  for (const Slot& output : outputs_) (*line_)["out"][output.name] = output.get();
  if (result_) {
    (*line_)["result"] = *result_;
  } else {
    (*line_)["thrown"] = true;
  }
  // What the framework hands over is the caller's, whose right is not known yet.
  if (current_call != 0 && name_.rfind("API", 0) != 0) Device::Get().trace.Learn(current_call, line_->Value());
  line_->Record();
}

bool IsConstructor(const std::string& operation) {
  const size_t colons = operation.find("::");
  return colons != std::string::npos && operation.substr(0, colons) == operation.substr(colons + 2);
}

void Operation::ReplaceOutputs() {
  for (const Slot& output : outputs_) {
    if (fault_->isMember(output.name)) output.set((*fault_)[output.name]);
  }
}

}  // namespace desk
