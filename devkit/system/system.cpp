#include <fcntl.h>
#include <platform/system.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <sstream>
#include <utility>
#include <vector>

#include "devkit/device/operation.h"
#include "devkit/system/services.h"

using desk::Args;
using desk::Device;
using desk::Operation;

namespace {

constexpr char kSettingsPath[] = "/etc/vexainfo.conf";
constexpr char kProgramLimit[] = "5s";
/// Exit codes from here on are those of `timeout` itself.
constexpr int kTimeoutsOwn = 124;

/// Whether `line` sets `key`; `value` is then what stands between the quotes, or all of it without quotes.
bool SplitSetting(const std::string& line, const std::string& key, std::string& value) {
  if (line.compare(0, key.size() + 1, key + "=") != 0) return false;
  value = line.substr(key.size() + 1);
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
  return true;
}

int ReadSetting(const char* path, const std::string& key, std::string& value) {
  const auto text = desk::LoadText(Device::Get().Locate(path));
  if (!text) return -1;
  std::istringstream lines(*text);
  for (std::string line; std::getline(lines, line);) {
    if (SplitSetting(line, key, value)) return 1;
  }
  return 0;
}

/// Sets the key where it stands, or at the end, and keeps every other line.
int WriteSetting(const std::string& key, const std::string& value) {
  const std::filesystem::path file = Device::Get().Locate(kSettingsPath);
  const desk::FolderLock lock(Device::Get().Root());
  std::istringstream lines(desk::LoadText(file).value_or(""));
  const std::string setting = key + "=\"" + value + "\"\n";
  std::string text;
  bool written = false;
  std::string former;
  for (std::string line; std::getline(lines, line);) {
    const bool replace = SplitSetting(line, key, former);
    if (!replace) text += line + '\n';
    if (replace && !written) text += setting;
    written = written || replace;
  }
  if (!written) text += setting;
  // A stream keeps quiet about memory that it could not get.
  return !lines.bad() && desk::StoreText(file, text) ? 0 : -1;
}

Json::Value LoadStates() {
  auto states = desk::LoadJson(Device::Get().Root() / "desk/services.json");
  if (!states || !states->isObject()) return Json::objectValue;
  return std::move(*states);
}

/// Reads a member of a state that a person may have edited.
bool IsTrue(const Json::Value& state, const char* member) { return state.isObject() && state[member] == true; }

std::int64_t Number(const Json::Value& state, const char* member) {
  const Json::Value value = state.isObject() ? state[member] : Json::Value();
  return value.isUInt64() && value.isInt64() ? value.asInt64() : 0;
}

/// Starts or stops a service that knows no "start_fails" or "stop_fails". -1 for one that is not listed.
int SwitchService(const std::string& name, bool on) {
  Device& device = Device::Get();
  const desk::FolderLock lock(device.Root());
  Json::Value states = LoadStates();
  if (!states.isMember(name) || !states[name].isObject()) return -1;
  Json::Value& state = states[name];
  if (IsTrue(state, on ? "start_fails" : "stop_fails")) return -1;
  state["enabled"] = on;
  state["running"] = on;
  if (on) state["started_at"] = Json::Int64(device.Now());
  return desk::StoreJson(device.Root() / "desk/services.json", states) ? 0 : -1;
}

/// Runs a program, the first of `words`, with no signal blocked and with the host's standard error for its output.
/// Its exit code, or -1 when it could not be run or took too long; `timeout` then kills all that it started.
int RunProgram(std::vector<std::string> words) {
  words.insert(words.begin(), {"timeout", "--signal=KILL", kProgramLimit});
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  pid_t child = 0;
  const int error = posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);

  int status = 0;
  if (error != 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status) < kTimeoutsOwn ? WEXITSTATUS(status) : -1;
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
  std::vector<std::string> words{Device::Get().Locate(program)};
  va_list rest;
  va_start(rest, flags);
  for (const char* word = va_arg(rest, const char*); word != nullptr; word = va_arg(rest, const char*)) {
    args.append(word);
    words.emplace_back(word);
  }
  va_end(rest);
  return Operation("VLIBCExecl", args).Run([&] { return RunProgram(words); });
}
}
