#pragma once

#include <json/value.h>

#include <memory>
#include <string>

/// The relay client library: the daemon's configuration and state, and requests to the control server.
/// An empty `path` argument of the `Write…` operations means the file the object was made for.
/// Private members are the desk device's own; a device's headers have others.
namespace VEXA {
namespace Relay {

/// Result of daemon, configuration and control-server operations.
enum RELAYD_RET : int {
  RELAYD_OK = 0,
  RELAYD_FAILED = 1,
  RELAYD_BAD_CONFIG = 2,
  RELAYD_BAD_COMMAND = 3,
  RELAYD_OUT_OF_RESOURCES = 4,
  RELAYD_SERVER_ERROR = 5,
  RELAYD_RESOLVE_FAILED = 6,
  RELAYD_NETWORK_FAILED = 7,
  RELAYD_SERVER_BUSY = 8,
  RELAYD_REQUEST_REFUSED = 9,
  RELAYD_UNKNOWN_DEVICE = 10,
  RELAYD_BAD_ANSWER = 11,
  RELAYD_UNKNOWN_ACCOUNT = 12,
  RELAYD_BAD_PASSWORD = 13,
  RELAYD_BAD_AUTH_KEY = 14,
  RELAYD_KEY_EXPIRED = 15,
};

/// Result of an alias request.
enum ALIAS_RET : int {
  ALIAS_NONE = 0,
  ALIAS_OK = 1,
  ALIAS_FAILED = 2,
  ALIAS_TAKEN = 3,
  ALIAS_UNKNOWN_ACCOUNT = 4,
  ALIAS_BAD_NAME = 5,
  ALIAS_RESOLVE_FAILED = 6,
  ALIAS_NETWORK_FAILED = 7,
  ALIAS_SERVER_ERROR = 8,
  ALIAS_BAD_CREDENTIALS = 9,
  ALIAS_UNKNOWN_DEVICE = 10,
  ALIAS_BAD_ANSWER = 11,
  ALIAS_NEEDS_FORCE = 12,
  ALIAS_KEY_EXPIRED = 14,
};

/// Error number that a control-server answer carries.
enum RELAYSERVER_ERR : int {
  RELAYSERVER_OK = 0,
  RELAYSERVER_BAD_REQUEST = 100,
  RELAYSERVER_INTERNAL = 101,
  RELAYSERVER_BUSY = 102,
  RELAYSERVER_UNKNOWN_DEVICE = 110,
  RELAYSERVER_KEY_EXPIRED = 111,
  RELAYSERVER_UNKNOWN_ACCOUNT = 120,
  RELAYSERVER_BAD_PASSWORD = 121,
  RELAYSERVER_BAD_AUTH_KEY = 122,
  RELAYSERVER_BAD_ALIAS = 130,
  RELAYSERVER_ALIAS_TAKEN = 131,
  RELAYSERVER_NEEDS_FORCE = 132,
};

/// Command of an alias request.
enum ALIAS_REQUEST_CMD : int {
  ALIAS_REQUEST_REGISTER = 1,
};

/// Base of the configuration objects. The two operations are the first virtual functions, in this order:
/// callers built against other headers rely on their slots, so the destructor comes after them.
class Config {
 public:
  /// Replaces the settings with those of `section`. False when the object refuses it.
  virtual bool Overwrite(const Json::Value& section) = 0;

  /// True when the settings make sense together.
  virtual bool Verify() = 0;

  virtual ~Config() = default;
};

/// Section of the device's alias.
class AliasConf : public Config {
 public:
  AliasConf();
  bool Overwrite(const Json::Value& section) override;
  bool Verify() override;

  /// The alias, empty when none is set.
  std::string GetAliasName() const;

  /// False when `name` cannot be an alias.
  bool SetAliasName(const std::string& name);

 private:
  std::string name_;
};

/// Section of a server.
class ServerConf : public Config {
 public:
  /// `host` and `region` may be null: not known.
  ServerConf(const char* host, const char* region);
  bool Overwrite(const Json::Value& section) override;
  bool Verify() override;

  std::string GetRegion() const;

  /// Address for requests to this server. `path` null: the library's own.
  std::string GetUrl(const char* path) const;

  std::string host;

 private:
  std::string region_;
};

/// Section of the cloud account.
class KovaConf : public Config {
 public:
  KovaConf();
  bool Overwrite(const Json::Value& section) override;
  bool Verify() override;

  /// The account, empty when none is set.
  std::string GetKovaAccount() const;

  /// False when `account` cannot be an account.
  bool SetKovaAccount(const std::string& account);

 private:
  std::string account_;
};

/// What the device proves its identity with to the control server.
class AuthConf {
 public:
  /// Reads the stored identity. False when there is none.
  bool ReadConf();

  /// Puts the identity into `out`; `with_key` adds the API key. False when there is none.
  bool Write(Json::Value& out, bool with_key) const;

  /// Makes a new API key and stores it.
  bool GenerateApiKey();

 private:
  Json::Value identity_;
};

/// UPnP settings of the daemon, kept in a file of their own.
class UpnpConf {
 public:
  explicit UpnpConf(const char* path);

  /// Takes over the members of `settings` that are UPnP settings, and leaves the others alone.
  bool Overwrite(const Json::Value& settings);

  /// Stores the settings. False when the file cannot be written.
  bool WriteConfig();

  /// Puts the settings into `out`; `complete` asks for all of them. False when they cannot be read.
  bool Write(Json::Value& out, bool complete) const;

 private:
  std::string path_;
  Json::Value settings_;
};

/// The daemon configuration as a whole.
class RelaydConf {
 public:
  /// Reads `path`; what the file does not give keeps the library's defaults.
  explicit RelaydConf(const char* path);

  /// Stores this object's server id.
  bool WriteServerId(const std::string& path);

  /// Stores `host` as the control server's host.
  bool WriteControlServerHost(const std::string& path, const std::string& host);

  bool WriteAliasName(const std::string& path, const std::string& name);
  bool WriteKovaAccount(const std::string& path, const std::string& account);

  /// Adds what every alias request carries to `body`.
  bool DumpDataForAliasReq(Json::Value& body);

  std::string server_id;
  ServerConf register_server;
  ServerConf control_server;
  AliasConf alias;
  KovaConf kova_account;
  AuthConf auth;

 private:
  struct Loading;
  RelaydConf(const char* path, const Loading& loading);

  std::string path_;
};

/// The running daemon.
class Daemon {
 public:
  /// Fills the server id, the daemon status ("not_running" when it does not run) and the error state
  /// ("err_resolv", "err_network" or empty). `socket` null: the daemon's own. False when the state cannot
  /// be read; the texts are then untouched.
  static bool GetStatus(std::string& server_id, std::string& status, std::string& error, const char* socket);

  /// Fills `out` with the daemon's state. 1 while the daemon is starting.
  static int GetStatus(Json::Value& out);

  /// Has the daemon ask the control server for the device's alias.
  static bool UpdateAlias();
};

/// Last known status per alias name.
class AliasStatus {
 public:
  AliasStatus();
  virtual ~AliasStatus() = default;

  /// Fills status and detail of `alias`. False, and nothing filled, when nothing is known of it.
  bool GetStatus(const std::string& alias, std::string& status, std::string& detail) const;

  /// Records status and detail of `alias`; `store` keeps them beyond this object.
  bool SetStatus(const std::string& alias, const std::string& status, const std::string& detail, bool store);

 private:
  Json::Value known_;
};

/// One alias request.
class AliasRequest {
 public:
  AliasRequest();

  /// Prepares the request. False when `body` cannot be sent.
  bool SetRequest(ALIAS_REQUEST_CMD command, const Json::Value& body);

  /// Sends the request and always fills `result`. True when the server accepted it. Until this object ends no other
  /// sends one, so that its sender stores the alias that the server heard last.
  bool Send(ALIAS_RET& result);

  /// Puts the text of `result` into `text`.
  static bool ResponseToString(ALIAS_RET result, std::string& text);

 private:
  Json::Value body_;
  std::shared_ptr<void> turn_;
};

/// One request to the control server: a POST of JSON answered with JSON.
class Request {
 public:
  /// `use_defaults` selects the library's own transfer settings.
  Request(const std::string& url, const Json::Value& body, bool use_defaults);

  /// Gives the request its final address and body. False when it cannot be sent.
  bool Set(const std::string& url, const Json::Value& body, bool use_defaults);

  /// True when the transfer succeeded, whatever the answer says.
  bool Send();

  /// Puts the answer into `answer`. False when it is no JSON.
  bool GetResponse(Json::Value& answer) const;

  /// The result of the last step.
  RELAYD_RET GetError() const;

  /// The number of the URL transfer's own result.
  int GetCurlResult() const;

 private:
  std::string url_;
  Json::Value body_;
  std::string answer_;
  mutable RELAYD_RET error_ = RELAYD_OK;
  int transfer_ = 0;
};

/// Readable text of a result.
std::string GetErrorStr(RELAYD_RET result);

/// The error that a control-server answer carries; none when it carries no error member.
RELAYSERVER_ERR ParseServerError(const Json::Value& answer);

/// The result that stands for a server error.
RELAYD_RET RespErrMap(RELAYSERVER_ERR error);

}  // namespace Relay
}  // namespace VEXA
