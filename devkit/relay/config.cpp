#include <json/value.h>
#include <platform/relay.h>

#include <utility>

#include "devkit/device/new_device.h"
#include "devkit/device/operation.h"
#include "devkit/relay/files.h"

namespace desk {

Json::Value LoadConf(const std::string& device_path) {
  try {
    auto conf = Device::Get().Load(device_path);
    if (conf && conf->isObject()) return std::move(*conf);
  } catch (const FileError&) {
    // Read as an empty one, but never written as one: who changes a file reads it again.
  }
  return Json::objectValue;
}

bool StoreMembers(const std::string& device_path, const std::string& section, const Json::Value& members) {
  Device& device = Device::Get();
  const FolderLock lock(device.Root());
  Json::Value conf = device.Load(device_path).value_or(Json::objectValue);
  if (!conf.isObject()) return false;
  Json::Value& parent = section.empty() ? conf : conf[section];
  if (!parent.isObject()) parent = Json::Value(Json::objectValue);
  for (const std::string& member : members.getMemberNames()) parent[member] = members[member];
  return StoreJson(device.Locate(device_path), conf);
}

std::string ServerUrl(const std::string& host) { return host.empty() ? "" : "http://" + host + "/relay"; }

}  // namespace desk

namespace VEXA {
namespace Relay {

using desk::Args;
using desk::Construct;
using desk::Object;
using desk::Operation;
using desk::StoreMembers;
using desk::Text;

namespace {

/// Takes a text member of a section, and refuses a section that is none or has another type there.
bool TakeText(const Json::Value& section, const char* member, std::string& text) {
  if (!section.isObject()) return false;
  const Json::Value value = section.get(member, "");
  if (value.isString()) text = value.asString();
  return value.isString();
}

Json::Value OrNull(const char* text) { return text == nullptr ? Json::Value() : Json::Value(text); }

}  // namespace

AliasConf::AliasConf() {
  Construct("AliasConf::AliasConf", Args(), [] {});
}

bool AliasConf::Overwrite(const Json::Value& section) {
  return Operation("AliasConf::Overwrite", Args(section)).Run([&] { return TakeText(section, "name", name_); });
}

bool AliasConf::Verify() { return desk::Give("AliasConf::Verify", name_.size() <= 255); }

std::string AliasConf::GetAliasName() const { return desk::Give("AliasConf::GetAliasName", name_); }

bool AliasConf::SetAliasName(const std::string& name) {
  return Operation("AliasConf::SetAliasName", Args(name)).Run([&] {
    if (name.empty() || name.size() > 255) return false;
    name_ = name;
    return true;
  });
}

ServerConf::ServerConf(const char* host_text, const char* region) {
  Construct("ServerConf::ServerConf", Args(OrNull(host_text), OrNull(region)), [&] {
    if (host_text != nullptr) host = host_text;
    if (region != nullptr) region_ = region;
  });
}

bool ServerConf::Overwrite(const Json::Value& section) {
  return Operation("ServerConf::Overwrite", Args(section)).Run([&] {
    return TakeText(section, "host", host) && TakeText(section, "region", region_);
  });
}

bool ServerConf::Verify() { return desk::Give("ServerConf::Verify", !host.empty()); }

std::string ServerConf::GetRegion() const { return desk::Give("ServerConf::GetRegion", region_); }

std::string ServerConf::GetUrl(const char* path) const {
  return Operation("ServerConf::GetUrl", Args(OrNull(path))).Run([&] {
    return desk::ServerUrl(host) + (path == nullptr ? "" : path);
  });
}

KovaConf::KovaConf() {
  Construct("KovaConf::KovaConf", Args(),
            [&] { account_ = Text(desk::LoadConf(desk::kDaemonConfPath)["server_kova"], "account"); });
}

bool KovaConf::Overwrite(const Json::Value& section) {
  return Operation("KovaConf::Overwrite", Args(section)).Run([&] { return TakeText(section, "account", account_); });
}

bool KovaConf::Verify() { return desk::Give("KovaConf::Verify", true); }

std::string KovaConf::GetKovaAccount() const { return desk::Give("KovaConf::GetKovaAccount", account_); }

bool KovaConf::SetKovaAccount(const std::string& account) {
  return Operation("KovaConf::SetKovaAccount", Args(account)).Run([&] {
    if (account.empty()) return false;
    account_ = account;
    return true;
  });
}

bool AuthConf::ReadConf() {
  return Operation("AuthConf::ReadConf").Run([&] {
    identity_ = desk::LoadConf(desk::kAuthConfPath);
    return !Text(identity_, "device").empty();
  });
}

bool AuthConf::Write(Json::Value& out, bool with_key) const {
  return Operation("AuthConf::Write", Args(with_key)).Output("auth", out).Run([&] {
    const std::string device = Text(identity_, "device");
    const std::string key = Text(identity_, "api_key");
    if (device.empty() || (with_key && key.empty())) return false;
    out["device"] = device;
    if (with_key) out["api_key"] = key;
    return true;
  });
}

bool AuthConf::GenerateApiKey() {
  return Operation("AuthConf::GenerateApiKey").Run([&] {
    identity_["api_key"] = desk::RandomHex(16);
    return StoreMembers(desk::kAuthConfPath, "", Object({{"api_key", identity_["api_key"]}}));
  });
}

UpnpConf::UpnpConf(const char* path) : path_(path) {
  Construct("UpnpConf::UpnpConf", Args(path), [&] { settings_ = desk::LoadConf(path); });
}

bool UpnpConf::Overwrite(const Json::Value& settings) {
  return Operation("UpnpConf::Overwrite", Args(settings)).Run([&] {
    if (!settings.isObject()) return false;
    if (settings["enabled"].isBool()) settings_["enabled"] = settings["enabled"];
    if (settings["lease_seconds"].isUInt()) settings_["lease_seconds"] = settings["lease_seconds"];
    return true;
  });
}

bool UpnpConf::WriteConfig() {
  return Operation("UpnpConf::WriteConfig").Run([&] { return StoreMembers(path_, "", settings_); });
}

bool UpnpConf::Write(Json::Value& out, bool complete) const {
  return Operation("UpnpConf::Write", Args(complete)).Output("settings", out).Run([&] {
    if (settings_.empty()) return false;
    out = settings_;
    return true;
  });
}

/// Keeps the construction of the parts out of the trace.
struct RelaydConf::Loading {
  desk::Unrecorded unrecorded;
};

RelaydConf::RelaydConf(const char* path) : RelaydConf(path, Loading()) {
  Construct("RelaydConf::RelaydConf", Args(path), [&] {
    const Json::Value conf = desk::LoadConf(path);
    server_id = Text(conf, "server_id");
    if (conf.isMember("server_register")) register_server.host = Text(conf["server_register"], "host");
    control_server.host = Text(conf["server_control"], "host");
  });
  if (control_server.host.empty()) control_server.host = register_server.host;
}

RelaydConf::RelaydConf(const char* path, const Loading&)
    : register_server(desk::kRegisterHost, nullptr), control_server(nullptr, nullptr), path_(path) {}

bool RelaydConf::WriteServerId(const std::string& path) {
  return Operation("RelaydConf::WriteServerId", Args(path)).Run([&] {
    return StoreMembers(path.empty() ? path_ : path, "", Object({{"server_id", server_id}}));
  });
}

bool RelaydConf::WriteControlServerHost(const std::string& path, const std::string& host) {
  return Operation("RelaydConf::WriteControlServerHost", Args(path, host)).Run([&] {
    const desk::Unrecorded unrecorded;
    Json::Value server = Object({{"host", host}});
    if (const std::string region = control_server.GetRegion(); !region.empty()) server["region"] = region;
    return StoreMembers(path.empty() ? path_ : path, "server_control", server);
  });
}

bool RelaydConf::WriteAliasName(const std::string& path, const std::string& name) {
  return Operation("RelaydConf::WriteAliasName", Args(path, name)).Run([&] {
    return StoreMembers(path.empty() ? path_ : path, "server_alias", Object({{"name", name}}));
  });
}

bool RelaydConf::WriteKovaAccount(const std::string& path, const std::string& account) {
  return Operation("RelaydConf::WriteKovaAccount", Args(path, account)).Run([&] {
    return StoreMembers(path.empty() ? path_ : path, "server_kova", Object({{"account", account}}));
  });
}

bool RelaydConf::DumpDataForAliasReq(Json::Value& body) {
  return Operation("RelaydConf::DumpDataForAliasReq").Output("body", body).Run([&] {
    const desk::Unrecorded unrecorded;
    const Json::Value identity = desk::LoadConf(desk::kAuthConfPath);
    body["version"] = 1;
    body["server_id"] = server_id;
    body["server_alias"] = alias.GetAliasName();
    body["auth"] = Object({{"device", Text(identity, "device")}, {"api_key", Text(identity, "api_key")}});
    return true;
  });
}

}  // namespace Relay
}  // namespace VEXA
