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

#include "error_codes.h"
#include "log_unit.h"

namespace relay = VEXA::Relay;

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

constexpr auto kRelaySuccess = static_cast<relay::RELAYD_RET>(0);
constexpr auto kApiKeyExpired = static_cast<relay::RELAYD_RET>(15);

/// Reads the rest of `file`. False when a read fails, as it does at once where `file` is a directory.
bool ReadAll(std::ifstream& file, std::string& text) {
  char block[8192];
  while (file.good()) text.append(block, static_cast<size_t>(file.read(block, sizeof(block)).gcount()));
  return !file.bad();
}

void MoveAside(const std::string& path) {
  const std::string aside = path + ".bad";
  if (std::rename(path.c_str(), aside.c_str()) >= 0) return;
  kUnit.Log(LOG_ERR, 92, "%s:%d rename %s to .bad failed. %m", path.c_str());
  unlink(path.c_str());
}

void WaitForDaemon() {
  Json::Value status;
  for (int query = 1; relay::Daemon::GetStatus(status) == kDaemonStarting && query < kStartQueries; ++query) {
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

/// Logs a failed transfer or a missing answer of `request` with `line` and gives `result` the request's error.
bool FailRequest(const relay::Request& request, int line, const char* format, relay::RELAYD_RET& result) {
  result = request.GetError();
  const int transfer = request.GetCurlResult();
  return kUnit.Fail(false, line, format, transfer, relay::GetErrorStr(result).c_str());
}

/// Logs an answer that reports an error.
bool FailAnswer(const Json::Value& answer, relay::RELAYD_RET result, int line) {
  const int server_error = static_cast<int>(relay::ParseServerError(answer));
  return kUnit.Fail(false, line, "%s:%d reponse failed: %d, %s", server_error, relay::GetErrorStr(result).c_str());
}

/// Log lines of one exchange with the control server.
struct ExchangeLines {
  int set;
  int send;
  int response;
};

/// Sends `body` and gets the answer, whose result it gives. False, logged, when none arrived: `result` is then the
/// request's error, or stays when there was nothing to send.
bool Exchange(const relay::RelaydConf& conf, const ExchangeLines& lines, const Json::Value& body,
              relay::Request& request, Json::Value& answer, relay::RELAYD_RET& result) {
  if (!request.Set(conf.register_server.GetUrl(nullptr), body, true)) {
    return kUnit.Fail(false, lines.set, "%s:%d set register command failed");
  }
  if (!request.Send()) return FailRequest(request, lines.send, "%s:%d request send failed: %d, %s", result);
  if (!request.GetResponse(answer)) {
    return FailRequest(request, lines.response, "%s:%d can not get response: %d, %s", result);
  }
  result = relay::RespErrMap(relay::ParseServerError(answer));
  return true;
}

}  // namespace

bool ReadJsonFile(std::string path, Json::Value& document) {
  document = Json::Value();
  std::ifstream file(path);
  std::string text;
  if (!file.good() || !ReadAll(file, text)) return false;

  if (Json::Reader().parse(text.data(), text.data() + text.size(), document, false)) return true;
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

bool SetConfig(Json::Value document, std::string section, relay::Config& config) {
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

relay::RELAYD_RET SendRegisterServerId(relay::RelaydConf& conf, Json::Value& answer) {
  constexpr ExchangeLines kLines{/*set=*/329, /*send=*/336, /*response=*/343};
  Json::Value body;
  relay::Request request(conf.register_server.GetUrl(nullptr), body, true);
  conf.auth.ReadConf();
  FillCommand(body, "register");
  if (!conf.auth.Write(body["auth"], true)) return kUnit.Fail(kRelayNotSet, 323, "%s:%d get auth token failed");
  relay::RELAYD_RET result = kRelayNotSet;
  Exchange(conf, kLines, body, request, answer, result);
  return result;
}

bool RegisterServerId(relay::RelaydConf& conf, relay::RELAYD_RET& result) {
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

bool GetRegisterSite(relay::RelaydConf& conf, relay::RELAYD_RET& result) {
  constexpr ExchangeLines kLines{/*set=*/266, /*send=*/275, /*response=*/284};
  Json::Value body;
  Json::Value answer;
  relay::Request request(conf.register_server.GetUrl(nullptr), body, true);
  FillCommand(body, "get_register_site");
  if (!Exchange(conf, kLines, body, request, answer, result)) return false;
  if (result != kRelaySuccess) return FailAnswer(answer, result, 292);
  if (!HasText(answer, "host")) return kUnit.Fail(false, 303, "%s:%d cannot get a serverid");

  conf.control_server.Overwrite(answer);
  conf.WriteControlServerHost("", conf.control_server.host);
  conf.WriteServerId("");
  return true;
}
