#include "devkit/device/trace.h"

#include <json/writer.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace desk {
namespace {

constexpr char kHidden[] = "(hidden)";
constexpr std::array<std::string_view, 4> kSecretMembers = {"api_key", "auth_key", "kova_password", "token"};
/// Older ones are forgotten, so that a server's memory does not grow with its calls.
constexpr size_t kMostSecrets = 100;
/// A shorter text is no secret worth the name, and hiding it everywhere would make the trace unreadable.
constexpr size_t kLeastSecretBytes = 6;

/// What this thread's call has recorded so far.
thread_local std::string call_lines;

}  // namespace

thread_local std::vector<std::string>* call_log = nullptr;

bool Trace::IsSecret(const std::string& name) {
  return std::find(kSecretMembers.begin(), kSecretMembers.end(), name) != kSecretMembers.end();
}

std::string ToLine(const Json::Value& value) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, value);
}

void Trace::Record(Json::Value line) {
  const std::lock_guard lock(mutex_);
  for (const char* member : {"args", "out", "result"}) {
    if (line.isMember(member)) line[member] = Clean(line[member]);
  }
  if (call_log != nullptr && line["op"] == "syslog") call_log->push_back(line["args"][1].asString());
  if (sink_) {
    call_lines += ToLine(line) + "\n";
  } else {
    lines_.push_back(std::move(line));
  }
}

void Trace::EndCall(const std::vector<std::string>& log) {
  const std::lock_guard lock(mutex_);
  if (sink_) sink_(call_lines, log);
  call_lines.clear();
}

/// A secret can also stand in a text as the JSON writers spell it.
void Trace::Hide(const std::string& text) {
  if (text.size() < kLeastSecretBytes || std::find(secrets_.begin(), secrets_.end(), text) != secrets_.end()) return;
  const std::string quoted = ToLine(text);
  const std::string spelled = quoted.substr(1, quoted.size() - 2);
  secrets_.push_back(text);
  if (spelled != text) secrets_.push_back(spelled);
  while (secrets_.size() > kMostSecrets) secrets_.pop_front();
}

void Trace::HideMembers(const Json::Value& value) {
  if (!value.isObject() && !value.isArray()) return;
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (value.isObject() && IsSecret(item.name()) && item->isString()) {
      const std::lock_guard lock(mutex_);
      Hide(item->asString());
    }
    HideMembers(*item);
  }
}

std::vector<Json::Value> Trace::Lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

void Trace::Clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
  secrets_.clear();
}

void Trace::SetSink(Sink sink) {
  const std::lock_guard lock(mutex_);
  sink_ = std::move(sink);
}

Json::Value Trace::Clean(const Json::Value& value) const {
  if (value.isString()) return Clean(value.asString());
  if (!value.isObject() && !value.isArray()) return value;
  Json::Value clean(value.type());
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (value.isArray()) {
      clean.append(Clean(*item));
    } else {
      clean[item.name()] = IsSecret(item.name()) ? Json::Value(kHidden) : Clean(*item);
    }
  }
  return clean;
}

/// One pass from left to right: what was put in for a secret is not searched for another.
std::string Trace::Clean(const std::string& text) const {
  std::string clean;
  size_t done = 0;
  while (done < text.size()) {
    size_t next = text.size();
    size_t size = 0;
    for (const std::string& secret : secrets_) {
      const size_t at = text.find(secret, done);
      if (at > next || at == std::string::npos) continue;
      size = at < next ? secret.size() : std::max(size, secret.size());
      next = at;
    }
    clean.append(text, done, next - done);
    if (size > 0) clean += kHidden;
    done = next + size;
  }
  return clean;
}

}  // namespace desk
