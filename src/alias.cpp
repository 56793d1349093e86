#include "alias.h"

#include <regex.h>

namespace relay = VEXA::Relay;

namespace {

// In POSIX brackets the backslash stands for itself, so both patterns accept it too.
constexpr char kAliasPattern[] = R"(^[a-zA-Z][a-zA-Z0-9\-]*$)";
constexpr char kAccountPattern[] = R"(^[0-9A-Za-z!#$%&'*+\/=?^_`{|}~\-]+(\.[0-9A-Za-z!#$%&'*+\/=?^_`{|}~\-]+)*)"
                                   R"(@([A-Za-z0-9]([A-Za-z0-9\-]*[A-Za-z0-9])?\.)+[A-Za-z]{2,}$)";

constexpr auto kRegisterAlias = static_cast<relay::ALIAS_REQUEST_CMD>(1);
constexpr auto kAliasKeyExpired = static_cast<relay::ALIAS_RET>(14);

class Pattern {
 public:
  explicit Pattern(const char* pattern) : compiled_(regcomp(&regex_, pattern, REG_EXTENDED | REG_NEWLINE) == 0) {}
  ~Pattern() {
    if (compiled_) regfree(&regex_);
  }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  /// A text with a NUL byte matches nothing: the expression sees only what stands before it.
  bool Matches(const std::string& text) const {
    return compiled_ && text.find('\0') == std::string::npos && regexec(&regex_, text.c_str(), 0, nullptr, 0) == 0;
  }

 private:
  regex_t regex_;
  bool compiled_;
};

}  // namespace

bool IsAlias(const std::string& alias) { return Pattern(kAliasPattern).Matches(alias); }

bool IsAccount(const std::string& account) { return Pattern(kAccountPattern).Matches(account); }

int RegistrationError(relay::RELAYD_RET result) {
  const int code = MapRelayErrorCode(result);
  return code == kSuccess ? kGeneralError : code;
}

int EnsureRegistered(const AliasLines& lines, AliasCall& call) {
  std::string server_id;
  std::string status;
  std::string error;
  relay::Daemon::GetStatus(server_id, status, error, nullptr);
  if (status != "not_running" && !server_id.empty()) return kSuccess;
  relay::RELAYD_RET result = kRelayNotSet;
  if (RegisterServerId(call.conf, result)) return kSuccess;
  return lines.unit.Fail(RegistrationError(result), lines.registration, "%s:%d Register serverid faield");
}

int RequestAlias(const AliasLines& lines, AliasCall& call, const std::string& alias, const Identity& identity,
                 bool force) {
  if (!call.conf.alias.SetAliasName(alias)) {
    return lines.unit.Fail(kGeneralError, lines.alias, "%s:%d Alias set error: %s", alias.c_str());
  }
  Json::Value body(Json::objectValue);
  call.conf.DumpDataForAliasReq(body);
  body[identity.name_member] = identity.name;
  body[identity.proof_member] = identity.proof;
  body["force"] = force ? "true" : "false";
  if (!call.request.SetRequest(kRegisterAlias, body)) {
    return lines.unit.Fail(kGeneralError, lines.request, "%s:%d Alias set error: %s", body.toStyledString().c_str());
  }

  auto result = static_cast<relay::ALIAS_RET>(0);
  call.request.Send(result);
  if (result == kAliasKeyExpired) call.conf.auth.GenerateApiKey();
  const int code = MapAliasErrorCode(result);
  relay::AliasRequest::ResponseToString(result, call.response);
  if (code == kSuccess) return kSuccess;
  return lines.unit.Fail(code, lines.refusal, "%s:%d Alias request alias: %s ret: %d error: %s", alias.c_str(),
                         static_cast<int>(result), call.response.c_str());
}

int AnnounceAlias(const AliasLines& lines, AliasCall& call, const std::string& alias) {
  call.status.SetStatus(alias, call.response, "", true);
  if (NotifyVexarelayd() != -1) return kSuccess;
  return lines.unit.Fail(kGeneralError, lines.notify, "%s:%d Fail to set notify vexarelayd");
}
