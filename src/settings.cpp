#include "settings.h"

#include <utility>

#include "error_codes.h"
#include "utils.h"

namespace relay = VEXA::Relay;

namespace {

constexpr char kPortalDomain[] = "relay.vexa.example";

bool ApplySections(Json::Value document, relay::AliasConf& alias, relay::KovaConf* account) {
  if (account == nullptr) return SetConfig(std::move(document), "server_alias", alias);
  return SetConfig(document, "server_alias", alias) && SetConfig(std::move(document), "server_kova", *account);
}

/// Whether the daemon configuration holds what switching on needs.
int CheckSettings(const SettingsLines& lines, relay::AliasConf& alias, relay::KovaConf* account) {
  Json::Value document;
  if (!ReadJsonFile(kDaemonConfPath, document)) {
    return lines.unit.Fail(kGeneralError, lines.set_config, "%s:%d load config failed");
  }
  if (!ApplySections(std::move(document), alias, account)) {
    return lines.unit.Fail(kGeneralError, lines.set_section, "%s:%d load config failed");
  }
  if (alias.GetAliasName().empty() || (account != nullptr && account->GetKovaAccount().empty())) {
    return lines.unit.Fail(kInvalidRequest, lines.set_unset, "%s:%d alias name and kova account does not set");
  }
  return kSuccess;
}

}  // namespace

bool DaemonState::HasNetworkError() const { return error == "err_resolv" || error == "err_network"; }

int LoadSettings(const SettingsLines& lines, DaemonState& daemon, relay::AliasConf& alias, relay::ServerConf& server) {
  if (!relay::Daemon::GetStatus(daemon.server_id, daemon.status, daemon.error, nullptr)) {
    return lines.unit.Fail(kGeneralError, lines.get_daemon, "%s:%d load relayinfo failed");
  }
  relay::Daemon::UpdateAlias();
  Json::Value document;
  if (!ReadJsonFile(kDaemonConfPath, document)) {
    return lines.unit.Fail(kGeneralError, lines.get_config, "%s:%d load config failed");
  }
  if (!SetConfig(document, "server_alias", alias) || !SetConfig(std::move(document), "server_control", server)) {
    return lines.unit.Fail(kGeneralError, lines.get_section, "%s:%d load config failed");
  }
  return kSuccess;
}

void FillSettings(Json::Value& payload, const DaemonState& daemon, const std::string& alias, const std::string& account,
                  const relay::ServerConf& server) {
  const bool enabled = GetEnabled();
  payload["server_id"] = daemon.server_id;
  payload["server_alias"] = alias;
  payload["kova_account"] = account;
  payload["domain"] = kPortalDomain;
  payload["region"] = server.GetRegion();
  payload["enabled"] = enabled;
}

int SwitchFeature(const SettingsLines& lines, VEXA::APIRequest& request, relay::AliasConf& alias,
                  relay::KovaConf* account) {
  if (!request.HasParam("enabled")) {
    return lines.unit.Fail(kInvalidRequest, lines.set_parameter, "%s:%d Invalid parameter");
  }
  const bool enabled = request.GetParam("enabled", Json::Value()).asBool();
  const int code = enabled ? CheckSettings(lines, alias, account) : kSuccess;
  if (code != kSuccess) return code;
  if (!SetEnabled(enabled)) return lines.unit.Fail(kGeneralError, lines.set_store, "%s:%d Fail to set config");
  if (NotifyVexarelayd() == -1) {
    return lines.unit.Fail(kGeneralError, lines.set_notify, "%s:%d Fail to set notify vexarelayd");
  }
  return kSuccess;
}
