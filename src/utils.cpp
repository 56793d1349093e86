#include "utils.h"

// The device's OpenSSL line has no newer call for MD5 that all its versions share.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <json/reader.h>
#include <json/writer.h>
#include <openssl/md5.h>
#include <platform/system.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

#include "error_codes.h"
#include "log_unit.h"

using VEXA::Relay::GetErrorStr;
using VEXA::Relay::ParseServerError;
using VEXA::Relay::RELAYD_RET;
using VEXA::Relay::RelaydConf;
using VEXA::Relay::Request;

namespace {

constexpr LogUnit kUnit{"utils"};

constexpr char kSettingsPath[] = "/etc/vexainfo.conf";
constexpr char kSwitchKey[] = "runrelayd";
constexpr char kDaemonService[] = "vexarelayd";
constexpr char kRemoteAccessService[] = "support-remote-access";

constexpr mode_t kConfigMode = 0644;

constexpr int kStartQueries = 11;
constexpr useconds_t kStartPauseMicroseconds = 500000;
constexpr int kDaemonStarting = 1;

constexpr int kMapEnd = 255;
constexpr auto kRelaySuccess = static_cast<RELAYD_RET>(0);
constexpr auto kApiKeyExpired = static_cast<RELAYD_RET>(15);

int MapErrorCode(const ErrorCodeRow* row, int result) {
  for (; row->result != kMapEnd; ++row) {
    if (row->result == result) return row->code;
  }
  return kGeneralError;
}

void MoveAside(const std::string& path) {
  const std::string aside = path + ".bad";
  if (std::rename(path.c_str(), aside.c_str()) >= 0) return;
  kUnit.Log(LOG_ERR, 92, "%s:%d rename %s to .bad failed. %m", path.c_str());
  unlink(path.c_str());
}

void WaitForDaemon() {
  Json::Value status;
  for (int query = 1; VEXA::Relay::Daemon::GetStatus(status) == kDaemonStarting && query < kStartQueries; ++query) {
    usleep(kStartPauseMicroseconds);
  }
}

int StartDaemon() {
  if (VLIBServiceIsEnabled(kDaemonService) == 1) {
    VLIBServiceReload(kDaemonService);
    return 0;
  }
  if (VLIBServiceStart(kDaemonService, 0) != 0) {
    return kUnit.Fail(-1, 172, "%s:%d call VLIBServiceStart() vexarelayd error");
  }
  WaitForDaemon();
  return 0;
}

int StopDaemon() {
  if (VLIBServiceIsEnabled(kDaemonService) != 1) return 0;
  if (VLIBServiceStop(kDaemonService, 0) == 0) return 0;
  return kUnit.Fail(-1, 195, "%s:%d call VLIBServiceStop() vexarelayd error");
}

void FillCommand(Json::Value& body, const char* command) {
  body["version"] = 1;
  body["command"] = command;
}

bool HasText(const Json::Value& answer, const char* member) {
  return answer.isObject() && answer.isMember(member) && answer[member].isString();
}

/// Logs a failed transfer or a missing answer of `request` with `line` and returns the request's error.
RELAYD_RET FailRequest(const Request& request, int line, const char* format) {
  const RELAYD_RET error = request.GetError();
  const int transfer = request.GetCurlResult();
  return kUnit.Fail(error, line, format, transfer, GetErrorStr(error).c_str());
}

/// Logs an answer that reports an error.
bool FailAnswer(const Json::Value& answer, RELAYD_RET result, int line) {
  const int server_error = static_cast<int>(ParseServerError(answer));
  return kUnit.Fail(false, line, "%s:%d reponse failed: %d, %s", server_error, GetErrorStr(result).c_str());
}

}  // namespace

const ErrorCodeRow grgRelayErrorCodeMap[17] = {
    {0, kSuccess},
    {8, 2905},
    {5, 2905},
    {6, kNetworkError},
    {7, kNetworkError},
    {10, 2903},
    {12, 2903},
    {13, 2903},
    {14, 2903},
    {9, kGeneralError},
    {15, kGeneralError},
    {11, kGeneralError},
    {1, kGeneralError},
    {2, kGeneralError},
    {3, kGeneralError},
    {4, kGeneralError},
    {kMapEnd, kGeneralError},
};

const ErrorCodeRow grgAliasErrorCodeMap[14] = {
    {1, kSuccess},       {5, kInvalidRequest},
    {6, kNetworkError},  {7, kNetworkError},
    {3, 2904},           {12, 2906},
    {8, 2905},           {4, 2903},
    {9, 2903},           {10, 2903},
    {2, kGeneralError},  {11, kGeneralError},
    {14, kGeneralError}, {kMapEnd, kGeneralError},
};

int MapRelayErrorCode(RELAYD_RET result) { return MapErrorCode(grgRelayErrorCodeMap, static_cast<int>(result)); }

int MapAliasErrorCode(VEXA::Relay::ALIAS_RET result) {
  return MapErrorCode(grgAliasErrorCodeMap, static_cast<int>(result));
}

bool ReadJsonFile(std::string path, Json::Value& document) {
  document = Json::Value();
  std::ifstream file(path);
  if (!file.good()) return false;

  if (Json::Reader().parse(file, document, false)) return true;
  kUnit.Log(LOG_ERR, 90, "%s:%d bad json format [%s]", path.c_str());
  MoveAside(path);
  return false;
}

bool WriteJsonFile(std::string path, const Json::Value& document) {
  std::ofstream file(path, std::ios::out | std::ios::trunc);
  if (!file.good()) return kUnit.Fail(false, 112, "%s:%d open failed [%s]", path.c_str());

  file << Json::StyledWriter().write(document);
  const bool written = file.good();
  file.close();
  if (written) {
    chmod(path.c_str(), kConfigMode);
  } else {
    unlink(path.c_str());
  }
  return written;
}

bool SetConfig(Json::Value document, std::string section, VEXA::Relay::Config& config) {
  if (!document.isObject() || !document.isMember(section)) return false;
  return config.Overwrite(document[section]) && config.Verify();
}

bool GetEnabled() {
  char value[128] = {};
  if (VLIBCFileGetKeyValue(kSettingsPath, kSwitchKey, value, sizeof(value), 0) < 1) {
    kUnit.Log(LOG_DEBUG, 45, "%s:%d cannot get a run key");
    std::strcpy(value, "no");
  }
  return strcasecmp(value, "yes") == 0;
}

bool SetEnabled(bool on) {
  const char* value = on ? "yes" : "no";
  if (VLIBCINFOSetKeyValue(kSwitchKey, value) >= 0) return true;
  return kUnit.Fail(false, 56, "%s:%d write vexainfo [runrelayd=%s] failed", value);
}

int NotifyVexarelayd() {
  if (VLIBServiceIsRunning(kRemoteAccessService) == 1) VLIBServiceReload(kRemoteAccessService);
  return GetEnabled() ? StartDaemon() : StopDaemon();
}

int GetMd5String(const char* input, char* output, int size) {
  constexpr int kMinimumSize = 64;
  if (input == nullptr) return kUnit.Fail(-1, 215, "%s:%d Invalid input.");
  if (size < kMinimumSize) return kUnit.Fail(-1, 220, "%s:%d Invalid output size");
  std::fill_n(output, size, '\0');

  MD5_CTX context;
  unsigned char digest[MD5_DIGEST_LENGTH];
  if (MD5_Init(&context) <= 0) return kUnit.Fail(-1, 230, "%s:%d MD5_Init failed");
  if (MD5_Update(&context, input, std::strlen(input)) <= 0) return kUnit.Fail(-1, 235, "%s:%d MD5_Update failed");
  if (MD5_Final(digest, &context) <= 0) return kUnit.Fail(-1, 240, "%s:%d MD5_Final failed");

  for (const unsigned char byte : digest) output += std::sprintf(output, "%02x", byte);
  return 0;
}

RELAYD_RET SendRegisterServerId(RelaydConf& conf, Json::Value& answer) {
  Json::Value body;
  Request request(conf.register_server.GetUrl(nullptr), body, true);
  conf.auth.ReadConf();
  FillCommand(body, "register");
  if (!conf.auth.Write(body["auth"], true)) return kUnit.Fail(kRelayNotSet, 323, "%s:%d get auth token failed");
  if (!request.Set(conf.register_server.GetUrl(nullptr), body, true)) {
    return kUnit.Fail(kRelayNotSet, 329, "%s:%d set register command failed");
  }
  if (!request.Send()) return FailRequest(request, 336, "%s:%d request send failed: %d, %s");
  if (!request.GetResponse(answer)) return FailRequest(request, 343, "%s:%d can not get response: %d, %s");
  return VEXA::Relay::RespErrMap(ParseServerError(answer));
}

bool RegisterServerId(RelaydConf& conf, RELAYD_RET& result) {
  Json::Value answer;
  result = SendRegisterServerId(conf, answer);
  if (result == kApiKeyExpired) {
    conf.auth.GenerateApiKey();
    result = SendRegisterServerId(conf, answer);
  }
  if (result != kRelaySuccess) return FailAnswer(answer, result, 373);
  if (!HasText(answer, "serverID")) return kUnit.Fail(false, 369, "%s:%d cannot get a serverid");

  conf.server_id = answer["serverID"].asString();
  conf.WriteServerId("");
  return true;
}

bool GetRegisterSite(RelaydConf& conf, RELAYD_RET& result) {
  Json::Value body;
  Json::Value answer;
  Request request(conf.register_server.GetUrl(nullptr), body, true);
  FillCommand(body, "get_register_site");
  if (!request.Set(conf.register_server.GetUrl(nullptr), body, true)) {
    return kUnit.Fail(false, 266, "%s:%d set register command failed");
  }
  if (!request.Send()) {
    result = FailRequest(request, 275, "%s:%d request send failed: %d, %s");
    return false;
  }
  if (!request.GetResponse(answer)) {
    result = FailRequest(request, 284, "%s:%d can not get response: %d, %s");
    return false;
  }
  result = VEXA::Relay::RespErrMap(ParseServerError(answer));
  if (result != kRelaySuccess) return FailAnswer(answer, result, 292);
  if (!HasText(answer, "host")) return kUnit.Fail(false, 303, "%s:%d cannot get a serverid");

  conf.control_server.Overwrite(answer);
  conf.WriteControlServerHost("", conf.control_server.host);
  conf.WriteServerId("");
  return true;
}
