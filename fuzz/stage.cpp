#include "fuzz/stage.h"

#include <json/writer.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "error_codes.h"

namespace desk {
namespace {

constexpr const char* kFiles[] = {kConf,     kServices, kUpnp,        kAccount,
                                  kSettings, kAuth,     kAliasStatus, "desk/services.json"};

constexpr int kFirstStatus = 100;

std::string Content(const Json::Value& value) { return value.isString() ? value.asString() : ToJsonText(value); }

std::string PostFault(const Json::Value& answer) {
  const int number = answer.isInt() ? answer.asInt() : 200;
  return "POST=" + ToJsonText(Object({{"result", number < kFirstStatus ? number : 0},
                                      {"status", number < kFirstStatus ? 0 : number},
                                      {"answer", answer.isInt() ? "" : Content(answer)}}));
}

/// Counts the open ones of the first descriptors, which new files get.
long OpenFiles() {
  std::array<pollfd, 64> files{};
  for (size_t file = 0; file < files.size(); ++file) files[file].fd = static_cast<int>(file);
  poll(files.data(), files.size(), 0);
  return std::count_if(files.begin(), files.end(), [](const pollfd& file) { return file.revents != POLLNVAL; });
}

bool MayAnswer(const Answer& answer, bool reads) {
  if (answer.success) return true;
  if (reads) return answer.code == kGeneralError || answer.code == kNetworkError;
  return answer.code >= kGeneralError && answer.code < kSuccess;
}

/// jsoncpp may throw for a document nested too deeply and for a parameter of another type, nothing else may.
bool MayThrow(const std::string& problem, bool reads) {
  if (problem == "Exceeded stackLimit in readValue().") return true;
  return !reads && (problem == "Value is not convertible to bool." || problem == "Type is not convertible to string");
}

std::string Judge(const Outcome& outcome, bool reads) {
  if (outcome.thrown && outcome.answers.empty() && MayThrow(*outcome.thrown, reads)) return *outcome.thrown;
  if (!outcome.Problem().empty()) throw std::runtime_error(outcome.Problem());

  const Answer& answer = outcome.answers.front();
  std::string result = answer.success ? "success" : std::to_string(answer.code);
  const auto type = answer.success && reads ? Json::objectValue : Json::nullValue;
  if (answer.data.type() == type && MayAnswer(answer, reads)) return result;
  throw std::runtime_error("answered " + result + " with " + ToJsonText(answer.data));
}

/// Only a list that other programs of the device can read is stored.
void ExpectServices(const Json::Value& list) {
  bool fits = list.isArray();
  for (const Json::Value& entry : list)
    fits = fits && entry.isObject() && entry["id"].isString() && entry["enabled"].isBool();
  if (!fits) throw std::runtime_error("stored a list of services that is none: " + ToJsonText(list));
}

void ExpectRefusal(const Outcome& outcome) {
  if (outcome.Problem().empty() && outcome.answers.front().code == kNotAdministrator) return;
  throw std::runtime_error("served a caller who is no administrator");
}

}  // namespace

std::string ToJsonText(const Json::Value& value) {
  static const Json::StreamWriterBuilder writer = [] {
    Json::StreamWriterBuilder made;
    made["indentation"] = "";
    made["emitUTF8"] = true;
    return made;
  }();
  return Json::writeString(writer, value);
}

std::string Stage::Play(const Json::Value& scene) {
  const std::string method = scene["method"].asString();
  const Json::Value params = scene.get("params", Json::objectValue);
  const bool reads = method.find("set") == std::string::npos;
  SetFiles(scene["files"]);
  SetFaults(scene["faults"], scene["answers"]);

  const long open_files = OpenFiles();
  const Outcome refused = reads ? Outcome() : TryMethod(method, params, false);
  const Outcome outcome = TryMethod(method, params);
  const bool left_open = OpenFiles() != open_files;
  const bool asked = Count("POST") > 0;
  device->trace.Clear();
  device->faults.Clear();

  if (!reads) ExpectRefusal(refused);
  if (left_open) throw std::runtime_error("left a file open");
  if (outcome.thrown && asked) throw std::runtime_error("threw at what the control server answered");
  const std::string result = Judge(outcome, reads);
  if (method == "Permission/1/set" && result == "success") ExpectServices(ReadJson(kServices));
  return result;
}

void Stage::SetFiles(const Json::Value& files) const {
  for (const char* file : kFiles) {
    const Json::Value& content = files[std::strrchr(file, '/') + 1];
    if (content.isNull()) {
      std::filesystem::remove(Path(file));
    } else {
      const std::string text = Content(content);
      if (LoadText(Path(file)) != text) Write(file, text);
    }
  }
}

void Stage::SetFaults(const Json::Value& faults, const Json::Value& answers) {
  device->faults.Add("VLIBCExecl=0");
  for (const Json::Value& fault : faults) device->faults.Add(fault.asString());
  unsigned call = 0;
  for (const Json::Value& answer : answers) device->faults.Add(PostFault(answer) + "@" + std::to_string(++call));
}

}  // namespace desk
