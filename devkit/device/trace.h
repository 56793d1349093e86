#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace desk {

/// What the module asked of the device, in order: one JSON object per operation with "call" (number of the
/// web-API call), "op", "args", and "result" or "thrown". Secrets are replaced by "(hidden)".
class Trace {
 public:
  /// Takes the lines of one call, as they stand in a file, and its log lines.
  using Sink = std::function<void(const std::string& lines, const std::vector<std::string>& log)>;

  /// Adds one line.
  void Record(Json::Value line);

  /// True for the name of a parameter or member that holds a secret.
  static bool IsSecret(const std::string& name);

  /// Hides what the members of `value` hold that are named as secrets, wherever it stands: until `owner`, a part of
  /// the device, has others, or in the lines of a call until it is forgotten. Secrets shorter than six bytes are
  /// hidden only under their names.
  void Own(const std::string& owner, const Json::Value& value);
  void Learn(unsigned call, const Json::Value& value);
  void Forget(unsigned call);

  std::vector<Json::Value> Lines() const;
  void Clear();

  /// Ends this thread's call, which wrote `log`, by handing its lines to the sink.
  void EndCall(const std::vector<std::string>& log);

  /// Hands lines to `sink`, once for each call, instead of keeping them.
  void SetSink(Sink sink);

 private:
  mutable std::mutex mutex_;
  std::vector<Json::Value> lines_;
  std::map<std::string, std::set<std::string>> own_;
  std::map<unsigned, std::set<std::string>> of_calls_;
  Sink sink_;
};

/// Takes this thread's log lines too, without secrets; null: nobody does.
extern thread_local std::vector<std::string>* call_log;

/// A value as one line of JSON.
std::string ToLine(const Json::Value& value);

}  // namespace desk
