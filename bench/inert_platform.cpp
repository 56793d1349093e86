// The device's closed libraries with bodies that do next to nothing, so that what is measured is the module, and
// the device's view of this machine. Texts are short enough for std::string to hold them without the heap.

#include "inert_platform.h"

#include <platform/account.h>
#include <platform/relay.h>
#include <platform/system.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>

namespace VEXA {

bool APIRequest::IsAdmin() { return true; }
bool APIRequest::HasParam(const std::string&) { return true; }
Json::Value APIRequest::GetParam(const std::string&, const Json::Value&) { return call_->param; }

void APIResponse::SetSuccess(const Json::Value&) { ++call_->successes; }
void APIResponse::SetError(int, const Json::Value&) {}

namespace Relay {

AliasConf::AliasConf() : name_(inert::kAlias) {}
bool AliasConf::Overwrite(const Json::Value&) { return true; }
bool AliasConf::Verify() { return true; }
std::string AliasConf::GetAliasName() const { return name_; }
bool AliasConf::SetAliasName(const std::string&) { return true; }

ServerConf::ServerConf(const char*, const char*) : region_(inert::kRegion) {}
bool ServerConf::Overwrite(const Json::Value&) { return true; }
bool ServerConf::Verify() { return true; }
std::string ServerConf::GetRegion() const { return region_; }
std::string ServerConf::GetUrl(const char*) const { return host; }

KovaConf::KovaConf() : account_(inert::kAccount) {}
bool KovaConf::Overwrite(const Json::Value&) { return true; }
bool KovaConf::Verify() { return true; }
std::string KovaConf::GetKovaAccount() const { return account_; }
bool KovaConf::SetKovaAccount(const std::string&) { return true; }

bool AuthConf::ReadConf() { return true; }
bool AuthConf::Write(Json::Value&, bool) const { return true; }
bool AuthConf::GenerateApiKey() { return true; }

UpnpConf::UpnpConf(const char*) {}
bool UpnpConf::Overwrite(const Json::Value&) { return true; }
bool UpnpConf::WriteConfig() { return true; }
bool UpnpConf::Write(Json::Value&, bool) const { return true; }

RelaydConf::RelaydConf(const char*) : register_server(nullptr, nullptr), control_server(nullptr, nullptr) {}
bool RelaydConf::WriteServerId(const std::string&) { return true; }
bool RelaydConf::WriteControlServerHost(const std::string&, const std::string&) { return true; }
bool RelaydConf::WriteAliasName(const std::string&, const std::string&) { return true; }
bool RelaydConf::WriteKovaAccount(const std::string&, const std::string&) { return true; }
bool RelaydConf::DumpDataForAliasReq(Json::Value&) { return true; }

bool Daemon::GetStatus(std::string& server_id, std::string& status, std::string&, const char*) {
  server_id = inert::kServerId;
  status = inert::kStatus;
  return true;
}
int Daemon::GetStatus(Json::Value&) { return 0; }
bool Daemon::UpdateAlias() { return true; }

AliasStatus::AliasStatus() = default;
bool AliasStatus::GetStatus(const std::string&, std::string& status, std::string&) const {
  status = inert::kStatus;
  return true;
}
bool AliasStatus::SetStatus(const std::string&, const std::string&, const std::string&, bool) { return true; }

AliasRequest::AliasRequest() = default;
bool AliasRequest::SetRequest(ALIAS_REQUEST_CMD, const Json::Value&) { return true; }
bool AliasRequest::Send(ALIAS_RET&) { return true; }
bool AliasRequest::ResponseToString(ALIAS_RET, std::string&) { return true; }

Request::Request(const std::string&, const Json::Value&, bool) {}
bool Request::Set(const std::string&, const Json::Value&, bool) { return true; }
bool Request::Send() { return true; }
bool Request::GetResponse(Json::Value&) const { return true; }
RELAYD_RET Request::GetError() const { return error_; }
int Request::GetCurlResult() const { return transfer_; }

std::string GetErrorStr(RELAYD_RET) { return {}; }
RELAYSERVER_ERR ParseServerError(const Json::Value&) { return RELAYSERVER_OK; }
RELAYD_RET RespErrMap(RELAYSERVER_ERR) { return RELAYD_OK; }

}  // namespace Relay
}  // namespace VEXA

int VEXAKOVAAccountGet(VEXAKOVAAccount* account) {
  std::strcpy(account->name, inert::kAccount);
  return 0;
}
int VEXAKOVAErrGet() { return 0; }
int VEXAKOVAAccountQueryInfo(Json::Value&, bool, bool) { return 0; }

int VLIBCFileGetKeyValue(const char*, const char*, char* buffer, int, int) {
  std::strcpy(buffer, "yes");
  return 1;
}
int VLIBCINFOSetKeyValue(const char*, const char*) { return 0; }
int VLIBServiceIsRunning(const char*) { return 0; }
int VLIBServiceIsEnabled(const char*) { return 1; }
int VLIBServiceStart(const char*, int) { return 0; }
int VLIBServiceStop(const char*, int) { return 0; }
int VLIBServiceReload(const char*) { return 0; }
int VLIBCExecl(const char*, unsigned int, ...) { return 0; }

namespace inert {

thread_local std::string root;
thread_local Counts counts;

}  // namespace inert

namespace {

/// Where a path of the device lies on this machine; other paths stay. Valid until the thread's next call.
const char* Locate(const char* path) {
  constexpr char kDeviceFolder[] = "/usr/vexa/";
  thread_local std::string place;
  if (std::strncmp(path, kDeviceFolder, sizeof(kDeviceFolder) - 1) != 0) return path;
  return place.assign(inert::root).append(path).c_str();
}

}  // namespace

extern "C" {

void* __libc_malloc(size_t size);

/// What operator new, jsoncpp and the C library get their memory from.
void* malloc(size_t size) noexcept {
  ++inert::counts.allocations;
  return __libc_malloc(size);
}

FILE* fopen64(const char* path, const char* mode) {
  ++inert::counts.opens;
  return fopen(Locate(path), mode);
}

int chmod(const char* path, mode_t mode) noexcept { return fchmodat(AT_FDCWD, Locate(path), mode, 0); }
}
