#include "devkit/control_server/control_server.h"

#include <platform/relay.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <limits>

#include "devkit/device/device.h"

namespace desk {
namespace {

namespace relay = VEXA::Relay;

constexpr int kFirstServerId = 100001;
// Bytes of what a device names and the state keeps.
constexpr size_t kMostDevice = 64;
constexpr size_t kMostKey = 64;
constexpr size_t kMostAlias = 63;
constexpr size_t kMostAccount = 254;
constexpr unsigned kMostBytes = 4 << 20;
constexpr Json::UInt64 kMostDelayMilliseconds = 30000;

/// Knows two cloud accounts: that of a new device, and "guest-password".
constexpr char kNewState[] = R"({
  "devices": {},
  "aliases": {},
  "expired_keys": [],
  "accounts": {
    "owner@vexa.example": {
      "password_md5": "7d65e1f9862de8d6292ba4888e7c3349",
      "id": "kova-1001",
      "auth_key": "desk-auth-key-of-owner"
    },
    "guest@vexa.example": {
      "password_md5": "779745e1c6f18ad2434261e0e7fda484",
      "id": "kova-1002",
      "auth_key": "desk-auth-key-of-guest"
    }
  }
}
)";

Json::Value Error(int code) { return Object({{"error", Object({{"code", code}})}}); }

bool IsName(const std::string& text, size_t most) { return !text.empty() && text.size() <= most; }

bool IsExpired(const Json::Value& state, const std::string& key) {
  for (const Json::Value& expired : state["expired_keys"]) {
    if (expired == key) return true;
  }
  return false;
}

/// Checks a device's key. A device may change its key only after the old one has expired.
int Identify(Json::Value& state, const Json::Value& auth) {
  const std::string key = Text(auth, "api_key");
  const std::string name = Text(auth, "device");
  if (!IsName(key, kMostKey) || !IsName(name, kMostDevice)) return relay::RELAYSERVER_BAD_REQUEST;
  Json::Value& device = state["devices"][name];
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
    if (next == std::numeric_limits<int>::max()) return Error(relay::RELAYSERVER_INTERNAL);
    device["server_id"] = std::to_string(next);
    state["next_server_id"] = next + 1;
  }
  return Object({{"serverID", device["server_id"]}});
}

Json::Value NameRegisterSite() { return Object({{"host", "eu.control.vexa.example"}, {"region", "eu"}}); }

/// Finds the account that a request names, and checks what the request proves it with.
int FindAccount(const Json::Value& state, const Json::Value& request, std::string& name) {
  const bool by_id = request.isMember("kova_id");
  const Json::Value& accounts = state["accounts"];
  for (const std::string& candidate : accounts.getMemberNames()) {
    const Json::Value& account = accounts[candidate];
    if (by_id ? Text(account, "id") != Text(request, "kova_id") : candidate != Text(request, "kova_account")) continue;
    name = candidate;
    if (!IsName(name, kMostAccount)) return relay::RELAYSERVER_UNKNOWN_ACCOUNT;
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
  const std::string server_id = Text(state["devices"][device], "server_id");
  if (error == 0 && (server_id.empty() || server_id != Text(request, "server_id"))) {
    error = relay::RELAYSERVER_UNKNOWN_DEVICE;
  }
  if (error == 0) error = FindAccount(state, request, account);
  if (error == 0 && !IsName(alias, kMostAlias)) error = relay::RELAYSERVER_BAD_ALIAS;
  if (error == 0) error = CheckOwner(state["aliases"][alias], account, device, Text(request, "force") == "true");
  if (error != 0) return Error(error);

  Json::Value aliases(Json::objectValue);
  for (const std::string& name : state["aliases"].getMemberNames()) {
    if (Text(state["aliases"][name], "device") != device) aliases[name] = state["aliases"][name];
  }
  aliases[alias] = Object({{"account", account}, {"device", device}});
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
  const auto faults = {"status", "text", "answer", "error", "bytes", "cut"};
  return std::none_of(faults.begin(), faults.end(), [&step](const char* fault) { return step.isMember(fault); });
}

}  // namespace

ControlServer::ControlServer(const std::filesystem::path& folder) : folder_(folder) {
  std::filesystem::create_directories(folder_);
  const FolderLock lock(folder_);
  FillNew(folder_);
  server_.Route("POST", "/relay", [this](const http::Request& request) { return Serve(request.body); });
}

void ControlServer::FillNew(const std::filesystem::path& folder) {
  RemoveParts(folder);
  if (!std::filesystem::exists(folder / "state.json") && !StoreText(folder / "state.json", kNewState)) {
    throw std::runtime_error("cannot write the control server's state into '" + folder.string() + "'");
  }
}

ControlServer::~ControlServer() {
  const std::lock_guard lock(mutex_);
  ending_ = true;
  end_.notify_all();
}

http::Response ControlServer::Serve(const std::string& text) {
  Json::Value body = TryParseJson(text).value_or(Json::objectValue);
  if (!body.isObject()) body = Json::objectValue;
  try {
    const Json::Value step = TakeStep(Text(body, "command"));
    Delay(step);
    if (step["error"] == static_cast<int>(relay::RELAYSERVER_KEY_EXPIRED)) Expire(Text(body["auth"], "api_key"));
    if (step.isObject() && !OnlyDelays(step)) return Misbehave(step);
    return {200, ToLine(Execute(body))};
  } catch (const std::exception& problem) {
    // A file that cannot be read, or a state that a person edited into another shape.
    std::cerr << "webapi-host: " << problem.what() << '\n';
    return {200, ToLine(Error(relay::RELAYSERVER_INTERNAL))};
  }
}

Json::Value ControlServer::TakeStep(const std::string& command) {
  const FolderLock lock(folder_);
  const std::filesystem::path file = folder_ / "script.json";
  const Json::Value steps = LoadJson(file).value_or(Json::arrayValue);
  if (!steps.isArray()) {
    std::cerr << "webapi-host: " << file << " is no JSON array and is ignored\n";
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
  if (!taken.isNull() && !StoreJson(file, rest)) throw FileError("a step of the script cannot be taken off");
  return taken;
}

void ControlServer::Delay(const Json::Value& step) {
  if (!step["delay_ms"].isUInt64()) return;
  std::unique_lock lock(mutex_);
  const auto delay = std::chrono::milliseconds(std::min(step["delay_ms"].asUInt64(), kMostDelayMilliseconds));
  end_.wait_for(lock, delay, [this] { return ending_; });
}

void ControlServer::Expire(const std::string& key) {
  const FolderLock lock(folder_);
  Json::Value state = LoadState();
  if (!IsName(key, kMostKey) || !state["expired_keys"].isArray()) return;
  state["expired_keys"].append(key);
  if (!StoreJson(folder_ / "state.json", state)) throw FileError("the control server's state cannot be written");
}

Json::Value ControlServer::LoadState() const {
  Json::Value state = LoadJson(folder_ / "state.json").value_or(Json::Value());
  if (!state.isObject()) throw FileError("the control server's state is no JSON object");
  return state;
}

Json::Value ControlServer::Execute(const Json::Value& request) {
  const FolderLock lock(folder_);
  Json::Value state = LoadState();
  Json::Value answer = Dispatch(state, request);
  // A refused request leaves no trace: the half-made entries of a refused device are not stored.
  const bool done = answer.isMember("error") || StoreJson(folder_ / "state.json", state);
  return done ? answer : Error(relay::RELAYSERVER_INTERNAL);
}

}  // namespace desk
