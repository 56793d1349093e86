#pragma once

#include <platform/relay.h>

#include <string>

#include "error_codes.h"
#include "log_unit.h"
#include "utils.h"

/// What versions 1 and 2 of `set_server_alias` share. Results are web-API codes, `kSuccess` when all went well.

/// Log lines of one version's registration.
struct AliasLines {
  LogUnit unit;
  int registration;
  int alias;
  int request;
  int refusal;
  int notify;
};

/// Who asks for an alias, and what proves it: two members of the request.
struct Identity {
  const char* name_member;
  std::string name;
  const char* proof_member;
  std::string proof;
};

/// What lives through the whole call, in the order in which it is made.
struct AliasCall {
  VEXA::Relay::RelaydConf conf{kDaemonConfPath};
  VEXA::Relay::AliasRequest request;
  VEXA::Relay::AliasStatus status;
  std::string response;
};

/// True when a line of `alias` is a letter followed by letters, digits, hyphens and backslashes.
bool IsAlias(const std::string& alias);

/// True when a line of `account` is an e-mail address.
/// Neither has a length limit. In a multibyte locale the time grows with the square of a long text that does
/// not match.
bool IsAccount(const std::string& account);

/// The code that stands for a failed registration, whose result may read as success.
int RegistrationError(VEXA::Relay::RELAYD_RET result);

/// Registers the device unless its daemon runs with a server id.
int EnsureRegistered(const AliasLines& lines, AliasCall& call);

/// Asks the control server for `alias` on behalf of `identity`.
int RequestAlias(const AliasLines& lines, AliasCall& call, const std::string& alias, const Identity& identity,
                 bool force);

/// Records the status of an accepted and stored alias and has the daemon take it up.
int AnnounceAlias(const AliasLines& lines, AliasCall& call, const std::string& alias);
