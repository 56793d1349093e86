#include "devkit/device/operation.h"

namespace desk {

namespace {

thread_local unsigned unrecorded = 0;

}  // namespace

thread_local unsigned current_call = 0;

Unrecorded::Unrecorded() { ++unrecorded; }

Unrecorded::~Unrecorded() { --unrecorded; }

Operation::Operation(std::string name, Json::Value args) : name_(std::move(name)), recorded_(unrecorded == 0) {
  if (!recorded_) return;
  fault_ = Device::Get().faults.Take(name_);
  line_["call"] = current_call;
  line_["op"] = name_;
  line_["args"] = std::move(args);
}

Operation::~Operation() {
  if (!recorded_) return;
  for (const Slot& output : outputs_) line_["out"][output.name] = output.get();
  if (result_) {
    line_["result"] = *result_;
  } else {
    line_["thrown"] = true;
  }
  Trace& trace = Device::Get().trace;
  // What the framework hands over is the caller's, whose right is not known yet.
  if (current_call != 0 && name_.rfind("API", 0) != 0) trace.Learn(current_call, line_);
  trace.Record(line_);
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
