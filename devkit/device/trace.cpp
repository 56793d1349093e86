#include "devkit/device/trace.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

#include "devkit/device/json.h"

namespace desk {
namespace {

constexpr char kHidden[] = "(hidden)";
constexpr std::array<std::string_view, 4> kSecretMembers = {"api_key", "auth_key", "kova_password", "token"};
/// A call that brings more secrets gets all its texts hidden: searching for them would take too long.
constexpr size_t kMostSecrets = 32;
/// A shorter text is no secret worth the name, and hiding it everywhere would make the trace unreadable.
constexpr size_t kLeastSecretBytes = 6;

constexpr size_t kMostRecent = 10000;
constexpr size_t kMostRecentBytes = 16 << 20;
constexpr size_t kMostAnswerBytes = 1 << 20;

/// What this thread's call has recorded so far.
thread_local std::vector<std::string> call_lines;

using Secrets = std::set<std::string>;
using Views = std::vector<std::string_view>;

/// True for the name of a parameter or member that holds a secret.
bool IsSecret(const std::string& name) {
  return std::find(kSecretMembers.begin(), kSecretMembers.end(), name) != kSecretMembers.end();
}

/// A secret can also stand in a text as the JSON writers spell it.
void Collect(const Json::Value& value, Secrets& secrets) {
  if (!value.isObject() && !value.isArray()) return;
  for (auto item = value.begin(); item != value.end(); ++item) {
    Collect(*item, secrets);
    if (!value.isObject() || !item->isString() || !IsSecret(item.name())) continue;
    const std::string text = item->asString();
    if (text.size() < kLeastSecretBytes) continue;
    const std::string quoted = ToLine(text);
    secrets.insert({text, quoted.substr(1, quoted.size() - 2)});
    if (secrets.size() > kMostSecrets) secrets = {""};
  }
}

/// Takes time linear in the text for each secret. What several secrets cover together is hidden as one.
std::string Clean(const std::string& text, const Views& secrets) {
  std::string hidden;
  for (const std::string_view secret : secrets) {
    if (secret.empty()) return kHidden;
    const char* end = text.data() + text.size();
    for (const char* at = text.data();; at += secret.size()) {
      at = static_cast<const char*>(memmem(at, static_cast<size_t>(end - at), secret.data(), secret.size()));
      if (at == nullptr) break;
      hidden.resize(text.size());
      hidden.replace(static_cast<size_t>(at - text.data()), secret.size(), secret.size(), '*');
    }
  }
  if (hidden.empty()) return text;
  std::string clean;
  for (size_t at = 0; at < text.size(); ++at) {
    if (hidden[at] == '\0') {
      clean += text[at];
    } else if (at == 0 || hidden[at - 1] == '\0') {
      clean += kHidden;
    }
  }
  return clean;
}

Json::Value Clean(const Json::Value& value, const Views& secrets) {
  if (value.isString()) return Clean(value.asString(), secrets);
  if (!value.isObject() && !value.isArray()) return value;
  Json::Value clean(value.type());
  for (auto item = value.begin(); item != value.end(); ++item) {
    if (value.isArray()) {
      clean.append(Clean(*item, secrets));
    } else {
      const bool secret = IsSecret(item.name());
      clean[Clean(item.name(), secrets)] = secret ? Json::Value(kHidden) : Clean(*item, secrets);
    }
  }
  return clean;
}

}  // namespace

thread_local std::vector<std::string>* call_log = nullptr;

void Trace::Hide(Json::Value& line) const {
  const bool given = line["op"] == "APIRequest::GetParam" && line.isMember("result");
  if (given && IsSecret(line["args"][0].asString())) line["result"] = kHidden;
  Views secrets;
  for (const auto& [owner, texts] : own_) secrets.insert(secrets.end(), texts.begin(), texts.end());
  const auto call = of_calls_.find(line["call"].asUInt());
  if (call != of_calls_.end()) secrets.insert(secrets.end(), call->second.begin(), call->second.end());
  for (const char* member : {"args", "out", "result", "fault"}) {
    if (line.isMember(member)) line[member] = Clean(line[member], secrets);
  }
}

void Trace::Record(Json::Value line) {
  const std::lock_guard lock(mutex_);
  if (!watched_) Hide(line);
  if (call_log != nullptr && line["op"] == "syslog") call_log->push_back(line["args"][1].asString());
  if (sink_) {
    call_lines.push_back(ToLine(line));
  } else {
    lines_.push_back(std::move(line));
  }
}

void Trace::EndCall(const std::vector<std::string>& log) {
  const std::lock_guard lock(mutex_);
  for (const std::string& line : call_lines) Keep(line);
  if (sink_) sink_(call_lines, log);
  call_lines.clear();
}

void Trace::Keep(const std::string& line) {
  recent_.push_back(line);
  recent_bytes_ += line.size();
  ++last_;
  for (; recent_.size() > kMostRecent || recent_bytes_ > kMostRecentBytes; recent_.pop_front()) {
    recent_bytes_ -= recent_.front().size();
  }
}

Json::Value Trace::Recent(std::uint64_t after, size_t limit) const {
  std::vector<std::string> texts;
  std::uint64_t from = 0;
  {
    const std::lock_guard lock(mutex_);
    const std::uint64_t oldest = last_ - recent_.size();
    after = std::min(after, last_);
    from = std::max(after, oldest);
    size_t bytes = 0;
    for (size_t at = from - oldest; at < recent_.size() && texts.size() < limit && bytes < kMostAnswerBytes; ++at) {
      bytes += recent_[at].size();
      texts.push_back(recent_[at]);
    }
  }
  Json::Value lines(Json::arrayValue);
  for (const std::string& text : texts) lines.append(TryParseJson(text).value_or(Json::objectValue));
  return Object(
      {{"lines", lines}, {"next", Json::UInt64(from + texts.size())}, {"skipped", Json::UInt64(from - after)}});
}

void Trace::Own(const std::string& owner, const Json::Value& value) {
  if (watched_) return;
  Secrets secrets;
  Collect(value, secrets);
  const std::lock_guard lock(mutex_);
  own_[owner] = std::move(secrets);
}

void Trace::Learn(unsigned call, const Json::Value& value) {
  if (watched_) return;
  const std::lock_guard lock(mutex_);
  Collect(value, of_calls_[call]);
}

void Trace::Forget(unsigned call) {
  const std::lock_guard lock(mutex_);
  of_calls_.erase(call);
}

const std::vector<Json::Value>& Trace::Lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

void Trace::Clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

void Trace::SetSink(Sink sink) {
  const std::lock_guard lock(mutex_);
  sink_ = std::move(sink);
}

}  // namespace desk
