#include <fcntl.h>
#include <platform/system.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "devkit/device/operation.h"
#include "devkit/system/services.h"

using desk::Args;
using desk::Device;
using desk::Operation;

namespace {

constexpr char kSettingsPath[] = "/etc/vexainfo.conf";
constexpr auto kProgramLimit = std::chrono::seconds(5);
constexpr auto kProgramPoll = std::chrono::milliseconds(2);

/// Whether `line` sets `key`; `value` is then what stands between the quotes, or all of it without quotes.
bool SplitSetting(const std::string& line, const std::string& key, std::string& value) {
  if (line.compare(0, key.size() + 1, key + "=") != 0) return false;
  value = line.substr(key.size() + 1);
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
  return true;
}

int ReadSetting(const char* path, const std::string& key, std::string& value) {
  std::error_code error;
  const std::filesystem::path file = Device::Get().Locate(path);
  if (!std::filesystem::is_regular_file(file, error)) return -1;
  std::ifstream lines(file);
  if (!lines) return -1;
  for (std::string line; std::getline(lines, line);) {
    if (SplitSetting(line, key, value)) return 1;
  }
  return 0;
}

/// Sets the key where it stands, or at the end, and keeps every other line.
int WriteSetting(const std::string& key, const std::string& value) {
  Device& device = Device::Get();
  const std::lock_guard lock(device.files);
  std::ifstream lines(device.Locate(kSettingsPath));
  std::ostringstream text;
  bool written = false;
  std::string former;
  for (std::string line; std::getline(lines, line);) {
    const bool replace = SplitSetting(line, key, former);
    if (!replace) text << line << '\n';
    if (replace && !written) text << key << "=\"" << value << "\"\n";
    written = written || replace;
  }
  if (!written) text << key << "=\"" << value << "\"\n";
  // Streams keep quiet about memory that they could not get.
  if (lines.bad() || !text) return -1;
  return desk::StoreText(device.Locate(kSettingsPath), text.str()) ? 0 : -1;
}

Json::Value LoadStates() {
  Json::Value states = desk::LoadJson(Device::Get().Root() / "desk/services.json");
  return states.isObject() ? states : Json::Value(Json::objectValue);
}

/// Reads a member that a person may have edited.
bool IsTrue(const Json::Value& state, const char* member) {
  return state.isObject() && state.isMember(member) && state[member].isBool() && state[member].asBool();
}

std::int64_t Number(const Json::Value& state, const char* member) {
  return state.isObject() && state.isMember(member) && state[member].isUInt64() && state[member].isInt64()
             ? state[member].asInt64()
             : 0;
}

/// Starts or stops a service that knows no "start_fails" or "stop_fails". -1 for one that is not listed.
int SwitchService(const std::string& name, bool on) {
  Device& device = Device::Get();
  const std::lock_guard lock(device.files);
  Json::Value states = LoadStates();
  if (!states.isMember(name) || !states[name].isObject()) return -1;
  Json::Value& state = states[name];
  if (IsTrue(state, on ? "start_fails" : "stop_fails")) return -1;
  state["enabled"] = on;
  state["running"] = on;
  if (on) state["started_at"] = Json::Int64(device.Now());
  return desk::StoreJson(device.Root() / "desk/services.json", states) ? 0 : -1;
}

/// Starts a program in a process group of its own, with no signal blocked and with the host's standard error for its
/// output.
bool Spawn(const std::string& program, char* const* argv, pid_t& child) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  const int error = posix_spawn(&child, program.c_str(), &actions, &attributes, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  return error == 0;
}

/// Runs a program and waits for its end. Its exit code, or -1 when it could not be run or took too long.
int RunProgram(const std::string& program, std::vector<std::string> words) {
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t child = 0;
  if (!Spawn(program, argv.data(), child)) return -1;

  const auto end = std::chrono::steady_clock::now() + kProgramLimit;
  int status = 0;
  pid_t ended = 0;
  while ((ended = waitpid(child, &status, WNOHANG)) == 0) {
    if (std::chrono::steady_clock::now() > end) kill(-child, SIGKILL);
    std::this_thread::sleep_for(kProgramPoll);
  }
  return ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

desk::Service desk::FindService(const std::string& name) {
  const Json::Value state = LoadStates()[name];
  Service service;
  service.enabled = IsTrue(state, "enabled");
  service.running = IsTrue(state, "running");
  const std::int64_t age = Device::Get().Now() - Number(state, "started_at");
  service.starting = service.running && age >= 0 && age < Number(state, "start_ms");
  return service;
}

extern "C" {

int VLIBCFileGetKeyValue(const char* path, const char* key, char* buffer, int size, int flags) {
  std::string value;
  Operation operation("VLIBCFileGetKeyValue", Args(path, key, size, flags));
  const int found = operation.Output("value", value).Run([&] { return ReadSetting(path, key, value); });
  if (found >= 1) std::snprintf(buffer, static_cast<size_t>(size), "%s", value.c_str());
  return found;
}

int VLIBCINFOSetKeyValue(const char* key, const char* value) {
  return Operation("VLIBCINFOSetKeyValue", Args(key, value)).Run([&] { return WriteSetting(key, value); });
}

int VLIBServiceIsRunning(const char* service) {
  return Operation("VLIBServiceIsRunning", Args(service)).Run([&] {
    return desk::FindService(service).running ? 1 : 0;
  });
}

int VLIBServiceIsEnabled(const char* service) {
  return Operation("VLIBServiceIsEnabled", Args(service)).Run([&] {
    return desk::FindService(service).enabled ? 1 : 0;
  });
}

int VLIBServiceStart(const char* service, int flags) {
  return Operation("VLIBServiceStart", Args(service, flags)).Run([&] { return SwitchService(service, true); });
}

int VLIBServiceStop(const char* service, int flags) {
  return Operation("VLIBServiceStop", Args(service, flags)).Run([&] { return SwitchService(service, false); });
}

int VLIBServiceReload(const char* service) {
  return Operation("VLIBServiceReload", Args(service)).Run([&] { return desk::FindService(service).running ? 0 : -1; });
}

int VLIBCExecl(const char* program, unsigned int flags, ...) {
  Json::Value args = Args(program, flags);
  std::vector<std::string> words{program};
  va_list rest;
  va_start(rest, flags);
  for (const char* word = va_arg(rest, const char*); word != nullptr; word = va_arg(rest, const char*)) {
    args.append(word);
    words.emplace_back(word);
  }
  va_end(rest);
  return Operation("VLIBCExecl", args).Run([&] { return RunProgram(Device::Get().Locate(program).string(), words); });
}
}
