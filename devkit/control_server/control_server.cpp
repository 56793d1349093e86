#include "devkit/control_server/control_server.h"

#include <openssl/evp.h>
#include <platform/relay.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>

#include "devkit/device/device.h"
#include "devkit/device/new_device.h"
#include "devkit/device/trace.h"
#include "devkit/relay/files.h"

namespace desk {
namespace {

namespace relay = VEXA::Relay;

constexpr int kFirstServerId = 100001;
constexpr unsigned kMostBytes = 4 << 20;
constexpr auto kMostDelay = std::chrono::seconds(30);

std::string Md5(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr);
  std::string hex;
  char digits[3];
  for (unsigned byte = 0; byte < size; ++byte) {
    std::snprintf(digits, sizeof(digits), "%02x", digest[byte]);
    hex += digits;
  }
  return hex;
}

Json::Value NewState() {
  Json::Value state;
  state["devices"] = Json::objectValue;
  state["aliases"] = Json::objectValue;
  state["expired_keys"] = Json::arrayValue;
  for (const DemoAccount& account : {kOwner, kGuest}) {
    Json::Value& entry = state["accounts"][account.name];
    entry["password_md5"] = Md5(account.password);
    entry["id"] = account.id;
    entry["auth_key"] = account.auth_key;
  }
  return state;
}

Json::Value Error(int code) {
  Json::Value answer;
  answer["error"]["code"] = code;
  return answer;
}

bool IsExpired(const Json::Value& state, const std::string& key) {
  for (const Json::Value& expired : state["expired_keys"]) {
    if (expired == key) return true;
  }
  return false;
}

/// Checks a device's key. A device may change its key only after the old one has expired.
int Identify(Json::Value& state, const Json::Value& auth) {
  const std::string key = Text(auth, "api_key");
  Json::Value& device = state["devices"][Text(auth, "device")];
  if (key.empty() || Text(auth, "device").empty()) return relay::RELAYSERVER_BAD_REQUEST;
  if (IsExpired(state, key)) return relay::RELAYSERVER_KEY_EXPIRED;
  const std::string known = Text(device, "api_key");
  if (!known.empty() && known != key && !IsExpired(state, known)) return relay::RELAYSERVER_UNKNOWN_DEVICE;
  device["api_key"] = key;
  return relay::RELAYSERVER_OK;
}

Json::Value RegisterDevice(Json::Value& state, const Json::Value& request) {
  const int error = Identify(state, request["auth"]);
  if (error != relay::RELAYSERVER_OK) return Error(error);
  Json::Value& device = state["devices"][Text(request["auth"], "device")];
  if (Text(device, "server_id").empty()) {
    const int next = state.get("next_server_id", kFirstServerId).asInt();
    device["server_id"] = std::to_string(next);
    state["next_server_id"] = next + 1;
  }
  Json::Value answer;
  answer["serverID"] = device["server_id"];
  return answer;
}

Json::Value NameRegisterSite() {
  Json::Value answer;
  answer["host"] = "eu.control.vexa.example";
  answer["region"] = "eu";
  return answer;
}

/// Finds the account that a request names, and checks what the request proves it with.
int FindAccount(const Json::Value& state, const Json::Value& request, std::string& name) {
  const bool by_id = request.isMember("kova_id");
  const Json::Value& accounts = state["accounts"];
  for (const std::string& candidate : accounts.getMemberNames()) {
    const Json::Value& account = accounts[candidate];
    if (by_id ? Text(account, "id") != Text(request, "kova_id") : candidate != Text(request, "kova_account")) continue;
    name = candidate;
    if (by_id && Text(account, "auth_key") != Text(request, "auth_key")) return relay::RELAYSERVER_BAD_AUTH_KEY;
    if (!by_id && Text(account, "password_md5") != Text(request, "kova_password")) {
      return relay::RELAYSERVER_BAD_PASSWORD;
    }
    return relay::RELAYSERVER_OK;
  }
  return relay::RELAYSERVER_UNKNOWN_ACCOUNT;
}

/// An alias belongs to an account on one device: no other account gets it, and the same account moves it to
/// another device only by force.
int CheckOwner(const Json::Value& entry, const std::string& account, const std::string& device, bool force) {
  if (!entry.isObject() || Text(entry, "account").empty()) return relay::RELAYSERVER_OK;
  if (Text(entry, "account") != account) return relay::RELAYSERVER_ALIAS_TAKEN;
  return Text(entry, "device") == device || force ? relay::RELAYSERVER_OK : relay::RELAYSERVER_NEEDS_FORCE;
}

Json::Value SetAlias(Json::Value& state, const Json::Value& request) {
  const std::string alias = Text(request, "server_alias");
  const std::string device = Text(request["auth"], "device");
  std::string account;
  int error = Identify(state, request["auth"]);
  if (error == 0 && Text(state["devices"][device], "server_id") != Text(request, "server_id")) {
    error = relay::RELAYSERVER_UNKNOWN_DEVICE;
  }
  if (error == 0) error = FindAccount(state, request, account);
  if (error == 0 && (alias.empty() || alias.size() > 63)) error = relay::RELAYSERVER_BAD_ALIAS;
  if (error == 0) error = CheckOwner(state["aliases"][alias], account, device, Text(request, "force") == "true");
  if (error != 0) return Error(error);

  Json::Value aliases(Json::objectValue);
  for (const std::string& name : state["aliases"].getMemberNames()) {
    if (Text(state["aliases"][name], "device") != device) aliases[name] = state["aliases"][name];
  }
  aliases[alias]["account"] = account;
  aliases[alias]["device"] = device;
  state["aliases"] = aliases;
  return Json::Value(Json::objectValue);
}

Json::Value Dispatch(Json::Value& state, const Json::Value& request) {
  const std::string command = Text(request, "command");
  if (command == "get_register_site") return NameRegisterSite();
  if (command == "register") return RegisterDevice(state, request);
  if (command == "set_alias") return SetAlias(state, request);
  return Error(relay::RELAYSERVER_BAD_REQUEST);
}

http::Response Misbehave(const Json::Value& step) {
  http::Response response;
  if (step["status"].isInt()) response.status = step["status"].asInt();
  if (step["location"].isString()) response.headers["Location"] = step["location"].asString();
  if (step["text"].isString()) response.body = step["text"].asString();
  if (step.isMember("answer")) response.body = ToLine(step["answer"]);
  if (step["error"].isInt()) response.body = ToLine(Error(step["error"].asInt()));
  if (step["bytes"].isUInt()) response.body = std::string(std::min(step["bytes"].asUInt(), kMostBytes), ' ');
  response.breaks_off = step["cut"].isBool() && step["cut"].asBool();
  if (response.breaks_off) response.body = "{\"half\":";
  return response;
}

/// A step with a delay only is served as usual after it.
bool OnlyDelays(const Json::Value& step) {
  for (const char* fault : {"status", "text", "answer", "error", "bytes", "cut"}) {
    if (step.isMember(fault)) return false;
  }
  return true;
}

}  // namespace

ControlServer::ControlServer(const std::filesystem::path& folder) : folder_(folder) {
  std::filesystem::create_directories(folder_);
  if (!std::filesystem::exists(folder_ / "state.json") && !StoreJson(folder_ / "state.json", NewState())) {
    throw std::runtime_error("cannot write the control server's state into '" + folder_.string() + "'");
  }
  server_.Route("POST", "/relay", [this](const http::Request& request) { return Serve(request.body); });
}

ControlServer::~ControlServer() {
  const std::lock_guard lock(mutex_);
  ending_ = true;
  end_.notify_all();
}

http::Response ControlServer::Serve(const std::string& text) {
  Json::Value body;
  std::string problem;
  if (!ParseJson(text, body, problem)) body = Json::Value();
  if (!body.isObject()) body = Json::Value(Json::objectValue);
  const Json::Value step = TakeStep(Text(body, "command"));
  Delay(step);
  if (step["error"] == static_cast<int>(relay::RELAYSERVER_KEY_EXPIRED)) Expire(Text(body["auth"], "api_key"));
  if (step.isObject() && !OnlyDelays(step)) return Misbehave(step);
  return {200, ToLine(Execute(body))};
}

Json::Value ControlServer::TakeStep(const std::string& command) {
  const std::lock_guard lock(mutex_);
  const std::filesystem::path file = folder_ / "script.json";
  const Json::Value steps = LoadJson(file);
  if (!steps.isArray()) {
    if (std::filesystem::exists(file)) std::cerr << "control server: " << file << " is no JSON array; ignored\n";
    return Json::Value();
  }
  Json::Value rest(Json::arrayValue);
  Json::Value taken;
  for (Json::Value step : steps) {
    const bool mine = step.isObject() && (!step.isMember("command") || Text(step, "command") == command);
    if (taken.isNull() && mine) {
      taken = step;
      if (!step["times"].isUInt() || step["times"].asUInt() <= 1) continue;
      step["times"] = step["times"].asUInt() - 1;
    }
    rest.append(step);
  }
  if (!taken.isNull()) StoreJson(file, rest);
  return taken;
}

void ControlServer::Delay(const Json::Value& step) {
  if (!step["delay_ms"].isUInt()) return;
  std::unique_lock lock(mutex_);
  const auto delay =
      std::min<std::chrono::milliseconds>(std::chrono::milliseconds(step["delay_ms"].asUInt()), kMostDelay);
  end_.wait_for(lock, delay, [this] { return ending_; });
}

void ControlServer::Expire(const std::string& key) {
  const std::lock_guard lock(mutex_);
  Json::Value state = LoadJson(folder_ / "state.json");
  if (key.empty() || !state.isObject() || !state["expired_keys"].isArray()) return;
  state["expired_keys"].append(key);
  StoreJson(folder_ / "state.json", state);
}

Json::Value ControlServer::Execute(const Json::Value& request) {
  const std::lock_guard lock(mutex_);
  try {
    Json::Value state = LoadJson(folder_ / "state.json");
    if (!state.isObject()) return Error(relay::RELAYSERVER_INTERNAL);
    Json::Value answer = Dispatch(state, request);
    // A refused request leaves no trace: the half-made entries of a refused device are not stored.
    if (!answer.isMember("error") && !StoreJson(folder_ / "state.json", state)) {
      return Error(relay::RELAYSERVER_INTERNAL);
    }
    return answer;
  } catch (const std::exception&) {
    return Error(relay::RELAYSERVER_INTERNAL);  // a state that a person edited into another shape
  }
}

}  // namespace desk
