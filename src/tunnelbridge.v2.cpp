#include <platform/account.h>
#include <platform/system.h>

#include <cstddef>
#include <cstring>

#include "alias.h"
#include "answer.h"
#include "handlers.h"
#include "settings.h"

namespace relay = VEXA::Relay;

namespace {

// The account library fills the record, whatever headers the module is built with.
static_assert(sizeof(VEXAKOVAAccount) == 20248, "size fixed by the account library");
static_assert(offsetof(VEXAKOVAAccount, name) == 0, "offset fixed by the account library");
static_assert(offsetof(VEXAKOVAAccount, id) == 8192, "offset fixed by the account library");
static_assert(offsetof(VEXAKOVAAccount, auth_key) == 12288, "offset fixed by the account library");

constexpr LogUnit kUnit{"tunnelbridge.v2"};
constexpr SettingsLines kSettingsLines{
    kUnit,
    /*get_daemon=*/231,
    /*get_config=*/241,
    /*get_section=*/248,
    /*set_parameter=*/163,
    /*set_config=*/173,
    /*set_section=*/179,
    /*set_unset=*/185,
    /*set_store=*/193,
    /*set_notify=*/199,
};
constexpr AliasLines kAliasLines{
    kUnit,
    /*registration=*/49,
    /*alias=*/57,
    /*request=*/68,
    /*refusal=*/84,
    /*notify=*/96,
};

constexpr char kAccountTool[] = "/usr/vexa/bin/vexakova";
constexpr unsigned int kAccountToolFlags = 0x41;

// Numbers of the account library.
constexpr int kNoAccountBound = 3;
constexpr int kAccountServiceUnreachable = 4;

template <size_t Size>
std::string Text(const char (&field)[Size]) {
  return std::string(field, strnlen(field, Size));
}

int AccountErrorCode(int error) { return error == kAccountServiceUnreachable ? kNetworkError : kGeneralError; }

/// Asks the account service for the account's e-mail address.
int QueryAccount(std::string& account) {
  Json::Value info;
  if (VEXAKOVAAccountQueryInfo(info, true, true) == 0) {
    if (info.isObject()) account = info["email"].asString();
    return kSuccess;
  }
  const int error = VEXAKOVAErrGet();
  return kUnit.Fail(AccountErrorCode(error), 270, "%s:%d VEXAKOVAAccountQueryInfo failed, code = %d", error);
}

int ReadAccount(const DaemonState& daemon, std::string& account) {
  VEXAKOVAAccount record = {};
  if (VEXAKOVAAccountGet(&record) != 0) {
    if (VEXAKOVAErrGet() == kNoAccountBound) return kSuccess;
    return kUnit.Fail(kGeneralError, 258, "%s:%d VEXAKOVAAccountGet failed, code = %d", VEXAKOVAErrGet());
  }
  account = Text(record.name);
  if (!account.empty() || daemon.HasNetworkError()) return kSuccess;
  return QueryAccount(account);
}

int ReadSettings(relay::AliasConf& alias, relay::ServerConf& server, Json::Value& payload) {
  DaemonState daemon;
  std::string account;
  int code = LoadSettings(kSettingsLines, daemon, alias, server);
  if (code == kSuccess) code = ReadAccount(daemon, account);
  if (code != kSuccess) return code;
  FillSettings(payload, daemon, alias.GetAliasName(), account, server);
  return kSuccess;
}

void RunAccountTool() {
  if (VLIBCExecl(kAccountTool, kAccountToolFlags, "--query_account", static_cast<const char*>(nullptr)) >= 0) return;
  kUnit.Log(LOG_ERR, 299, "%s:%d Failed to execute vexakova.");
}

/// Takes the bound account's id and auth key into `identity`.
int ReadIdentity(Identity& identity) {
  VEXAKOVAAccount record = {};
  if (VEXAKOVAAccountGet(&record) != 0) {
    const int error = VEXAKOVAErrGet();
    return kUnit.Fail(AccountErrorCode(error), 26, "%s:%d ERR_GET_KOVA_ACCOUNT_FAILED error code = %d", error);
  }
  const std::string id = Text(record.id);
  const std::string auth_key = Text(record.auth_key);
  if (id.empty() || auth_key.empty()) {
    return kUnit.Fail(kGeneralError, 40, "%s:%d invalid kova inforamtion, id: %s authkey: %s", id.c_str(),
                      auth_key.c_str());
  }
  identity = {"kova_id", id, "auth_key", auth_key};
  return kSuccess;
}

int SetServerAliasByAccount(std::string alias, bool force) {
  AliasCall call;
  Identity identity;
  int code = ReadIdentity(identity);
  if (code == kSuccess) code = EnsureRegistered(kAliasLines, call);
  if (code == kSuccess) code = RequestAlias(kAliasLines, call, alias, identity, force);
  if (code != kSuccess) return code;

  call.conf.WriteAliasName("", alias);
  return AnnounceAlias(kAliasLines, call, alias);
}

int ServeAlias(VEXA::APIRequest& request) {
  if (!request.HasParam("server_alias")) return kUnit.Fail(kInvalidRequest, 120, "%s:%d Invalid parameter");
  const std::string alias = request.GetParam("server_alias", Json::Value()).asString();
  bool force = false;
  if (request.HasParam("force")) force = request.GetParam("force", Json::Value()).asBool();
  if (!IsAlias(alias)) return kUnit.Fail(kInvalidRequest, 131, "%s:%d alias format error: %s", alias.c_str());
  return SetServerAliasByAccount(alias, force);
}

}  // namespace

void Get_v2(VEXA::APIRequest*, VEXA::APIResponse* response) {
  relay::AliasConf alias;
  relay::ServerConf server(nullptr, nullptr);
  Json::Value payload(Json::objectValue);
  const int code = ReadSettings(alias, server, payload);
  // An unreachable account service is the one outcome that must not start another query.
  if (code != kNetworkError) RunAccountTool();
  AnswerReading(*response, code, payload);
}

void Set_v2(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  relay::AliasConf alias;
  ServeChange(*request, *response, [&](auto& asked) { return SwitchFeature(kSettingsLines, asked, alias, nullptr); });
}

void SetServerAlias_v2(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  ServeChange(*request, *response, ServeAlias);
}
