#pragma once

#include <json/value.h>
#include <platform/relay.h>
#include <platform/webapi.h>

#include <string>

#include "log_unit.h"

/// What versions 1 and 2 of `get` and `set` share. Results are web-API codes, `kSuccess` when all went well.

/// The daemon's account of itself, as it stands before the daemon was asked.
struct DaemonState {
  std::string server_id;
  std::string status = "unknown";
  std::string error;

  /// The daemon cannot reach the control server.
  bool HasNetworkError() const;
};

/// Log lines of one version's `get` and `set`.
struct SettingsLines {
  LogUnit unit;
  int get_daemon;
  int get_config;
  int get_section;
  int set_parameter;
  int set_config;
  int set_section;
  int set_unset;
  int set_store;
  int set_notify;
};

/// Asks the daemon for its state, has it refresh the alias, and applies the sections of the daemon
/// configuration to `alias` and `server`.
int LoadSettings(const SettingsLines& lines, DaemonState& daemon, VEXA::Relay::AliasConf& alias,
                 VEXA::Relay::ServerConf& server);

/// Fills `payload` with the six members of the settings payload; reads the feature switch.
void FillSettings(Json::Value& payload, const DaemonState& daemon, const std::string& alias, const std::string& account,
                  const VEXA::Relay::ServerConf& server);

/// Switches the feature as "enabled" of the request says. Switching on needs an alias in the daemon
/// configuration and, where `account` is given, an account too.
int SwitchFeature(const SettingsLines& lines, VEXA::APIRequest& request, VEXA::Relay::AliasConf& alias,
                  VEXA::Relay::KovaConf* account);
