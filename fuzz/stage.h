#pragma once

#include <json/value.h>

#include <string>

#include "tests/desk_fixture.h"

namespace desk {

/// A desk device to play scenes on, one after the other. A scene is one call, a JSON object:
///   "method"    as `FindHandler` takes it
///   "params"    the parameters
///   "files"     the device's files by name: a text is the content as it stands, any other value its JSON; files
///               that are not named are missing
///   "answers"   what the control server answers to one request after the other: likewise a text or JSON, but a
///               whole number is libcurl's result, or from 100 on an HTTP status. Then it answers no more
///   "faults"    further faults of the device
///   "expected"  what `Play` returns, for the tests
class Stage : public DeskTest {
 public:
  Stage() { device->trace.Watch({"APIRequest::HasParam", "POST"}); }

  /// Calls as an administrator, after a changing method was called as somebody else. Returns "success", the code of
  /// an error answer, or the text of the exception that left the handler. Throws `std::runtime_error` when the
  /// handler broke its contract.
  std::string Play(const Json::Value& scene);

 private:
  void TestBody() override {}
  void SetFiles(const Json::Value& files) const;
  void SetFaults(const Json::Value& faults, const Json::Value& answers);
};

/// A value as compact JSON that keeps every byte of its texts.
std::string ToJsonText(const Json::Value& value);

}  // namespace desk
