#pragma once

#include <json/value.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace desk {

/// What the module asked of the device, in order: one JSON object per operation with "call" (number of the
/// web-API call), "method", "pid", "at" (its beginning, milliseconds since the epoch), "from" (the same, microseconds
/// since the call's), "us" (its duration), "op", "args", "out", "result" or "thrown", and "fault" where that was
/// injected. Secrets are replaced by "(hidden)".
class Trace {
 public:
  /// Takes the lines of one call, and its log lines.
  using Sink = std::function<void(const std::vector<std::string>& lines, const std::vector<std::string>& log)>;

  /// Adds one line.
  void Record(Json::Value line);

  /// Hides what the members of `value` hold that are named as secrets, wherever it stands: until `owner`, a part of
  /// the device, has others, or in the lines of a call until it is forgotten. Secrets shorter than six bytes are
  /// hidden only under their names.
  void Own(const std::string& owner, const Json::Value& value);
  void Learn(unsigned call, const Json::Value& value);
  void Forget(unsigned call);

  /// From now on only these operations leave a line, with the secrets in it: for a program that checks calls by the
  /// thousand and shows them to nobody. The module's file functions and its log still do, too.
  void Watch(std::set<std::string> operations) { watched_ = std::move(operations); }

  /// Whether an operation is to leave a line.
  bool Watches(const std::string& operation) const { return !watched_ || watched_->count(operation) != 0; }

  /// The lines that are kept. Valid until the next one, so take it while no call is under way.
  const std::vector<Json::Value>& Lines() const;
  void Clear();

  /// Ends this thread's call, which wrote `log`, by handing its lines to the sink.
  void EndCall(const std::vector<std::string>& log);

  /// Hands lines to `sink`, once for each call, instead of keeping them all.
  void SetSink(Sink sink);

  /// What was handed over after the line of the number `after`: an object with at most `limit` "lines", "next", the
  /// number of the last one, and "skipped", how many before them are not kept any more. The last 10,000 are, unless
  /// they have more than 16 MiB. An answer ends with the line that passes 1 MiB.
  Json::Value Recent(std::uint64_t after, size_t limit) const;

 private:
  mutable std::mutex mutex_;
  void Hide(Json::Value& line) const;
  void Keep(const std::string& line);

  std::optional<std::set<std::string>> watched_;
  std::vector<Json::Value> lines_;
  std::deque<std::string> recent_;
  size_t recent_bytes_ = 0;
  std::uint64_t last_ = 0;
  std::map<std::string, std::set<std::string>> own_;
  std::map<unsigned, std::set<std::string>> of_calls_;
  Sink sink_;
};

/// Takes this thread's log lines too, without secrets; null: nobody does.
extern thread_local std::vector<std::string>* call_log;

}  // namespace desk
