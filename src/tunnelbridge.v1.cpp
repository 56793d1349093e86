#include <utility>

#include "alias.h"
#include "answer.h"
#include "handlers.h"
#include "settings.h"

namespace relay = VEXA::Relay;

namespace {

constexpr LogUnit kUnit{"tunnelbridge.v1"};
constexpr SettingsLines kSettingsLines{
    kUnit,
    /*get_daemon=*/303,
    /*get_config=*/313,
    /*get_section=*/320,
    /*set_parameter=*/236,
    /*set_config=*/246,
    /*set_section=*/253,
    /*set_unset=*/260,
    /*set_store=*/268,
    /*set_notify=*/274,
};
constexpr AliasLines kAliasLines{
    kUnit,
    /*registration=*/33,
    /*alias=*/56,
    /*request=*/67,
    /*refusal=*/83,
    /*notify=*/96,
};

constexpr size_t kMinimumPasswordBytes = 6;
constexpr size_t kMaximumPasswordBytes = 128;

int ReadStatus(relay::AliasConf& alias, const relay::AliasStatus& alias_store, Json::Value& payload) {
  Json::Value document;
  DaemonState daemon;
  std::string alias_status = "unknown";
  std::string alias_detail;
  if (!ReadJsonFile(kDaemonConfPath, document)) return kUnit.Fail(kGeneralError, 119, "%s:%d load config failed");
  if (!SetConfig(std::move(document), "server_alias", alias)) {
    return kUnit.Fail(kGeneralError, 125, "%s:%d load config failed");
  }
  if (!relay::Daemon::GetStatus(daemon.server_id, daemon.status, daemon.error, nullptr)) {
    return kUnit.Fail(kGeneralError, 132, "%s:%d load relayinfo failed");
  }
  if (daemon.HasNetworkError()) return kNetworkError;

  alias_store.GetStatus(alias.GetAliasName(), alias_status, alias_detail);
  payload["status"] = daemon.status;
  payload["alias_status"] = alias_status;
  return kSuccess;
}

struct AliasParameters {
  std::string alias;
  std::string account;
  std::string password;
  bool force = false;
};

int ParseAlias(VEXA::APIRequest& request, AliasParameters& parameters) {
  for (const char* name : {"kova_account", "server_alias", "kova_password"}) {
    if (!request.HasParam(name)) return kUnit.Fail(kInvalidRequest, 174, "%s:%d Invalid parameter");
  }
  parameters.alias = request.GetParam("server_alias", Json::Value()).asString();
  parameters.account = request.GetParam("kova_account", Json::Value()).asString();
  parameters.password = request.GetParam("kova_password", Json::Value()).asString();
  if (request.HasParam("force")) parameters.force = request.GetParam("force", Json::Value()).asBool();

  if (!IsAlias(parameters.alias)) {
    return kUnit.Fail(kInvalidRequest, 187, "%s:%d alias format error: %s", parameters.alias.c_str());
  }
  if (!IsAccount(parameters.account)) {
    return kUnit.Fail(kInvalidRequest, 195, "%s:%d kova account format error: %s", parameters.account.c_str());
  }
  const size_t length = parameters.password.size();
  if (length < kMinimumPasswordBytes || length > kMaximumPasswordBytes) {
    return kUnit.Fail(kInvalidRequest, 203, "%s:%d kova passowrd length is invaild: %d", static_cast<int>(length));
  }
  return kSuccess;
}

/// Asks for the register site while the device still takes the registration server for its control server.
int EnsureRegisterSite(AliasCall& call) {
  if (call.conf.control_server.host != call.conf.register_server.host) return kSuccess;
  relay::RELAYD_RET result = kRelayNotSet;
  if (GetRegisterSite(call.conf, result)) return kSuccess;
  return kUnit.Fail(RegistrationError(result), 23, "%s:%d Get register site faield");
}

/// Fills `identity` with what proves the account to the control server.
int SetAccount(AliasCall& call, const AliasParameters& parameters, Identity& identity) {
  char digest[65] = {};
  if (GetMd5String(parameters.password.c_str(), digest, sizeof(digest)) == -1) {
    return kUnit.Fail(kGeneralError, 42, "%s:%d Encrypted error: %s", parameters.account.c_str());
  }
  if (!call.conf.kova_account.SetKovaAccount(parameters.account)) {
    return kUnit.Fail(kGeneralError, 49, "%s:%d Kova Account set error: %s", parameters.account.c_str());
  }
  identity = {"kova_account", parameters.account, "kova_password", digest};
  return kSuccess;
}

int RegisterAlias(const AliasParameters& parameters) {
  AliasCall call;
  Identity identity;
  int code = EnsureRegisterSite(call);
  if (code == kSuccess) code = EnsureRegistered(kAliasLines, call);
  if (code == kSuccess) code = SetAccount(call, parameters, identity);
  if (code == kSuccess) code = RequestAlias(kAliasLines, call, parameters.alias, identity, parameters.force);
  if (code != kSuccess) return code;

  call.conf.WriteAliasName("", parameters.alias);
  call.conf.WriteKovaAccount("", parameters.account);
  return AnnounceAlias(kAliasLines, call, parameters.alias);
}

int ServeAlias(VEXA::APIRequest& request) {
  AliasParameters parameters;
  const int code = ParseAlias(request, parameters);
  return code == kSuccess ? RegisterAlias(parameters) : code;
}

}  // namespace

void Status_v1(VEXA::APIRequest*, VEXA::APIResponse* response) {
  relay::AliasConf alias;
  const relay::AliasStatus alias_store;
  Json::Value payload(Json::objectValue);
  AnswerReading(*response, ReadStatus(alias, alias_store, payload), payload);
}

void Get_v1(VEXA::APIRequest*, VEXA::APIResponse* response) {
  relay::AliasConf alias;
  const relay::KovaConf account;
  relay::ServerConf server(nullptr, nullptr);
  DaemonState daemon;
  Json::Value payload(Json::objectValue);
  const int code = LoadSettings(kSettingsLines, daemon, alias, server);
  if (code == kSuccess) {
    const std::string alias_name = alias.GetAliasName();
    FillSettings(payload, daemon, alias_name, account.GetKovaAccount(), server);
  }
  AnswerReading(*response, code, payload);
}

void Set_v1(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  relay::AliasConf alias;
  relay::KovaConf account;
  ServeChange(*request, *response, [&](auto& asked) { return SwitchFeature(kSettingsLines, asked, alias, &account); });
}

void SetServerAlias_v1(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  ServeChange(*request, *response, ServeAlias);
}
