#pragma once

#include <json/value.h>
#include <platform/webapi.h>

#include <string>

/// The framework's record of a call: one value that stands for every parameter, and how it was answered.
struct VEXA::APICall {
  const Json::Value& param;
  int successes = 0;
};

namespace inert {

/// What the inert platform answers.
constexpr char kServerId[] = "1001";
constexpr char kStatus[] = "running";
constexpr char kAlias[] = "my-device";
constexpr char kAccount[] = "a@vexa.example";
constexpr char kRegion[] = "global";

/// Folder that the device's paths lie in for the calling thread.
extern thread_local std::string root;

/// The calling thread's heap allocations and opened files so far.
struct Counts {
  long allocations = 0;
  long opens = 0;
};
extern thread_local Counts counts;

}  // namespace inert
