#include "devkit/console/methods.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>

#include "devkit/control_server/control_server.h"
#include "devkit/device/new_device.h"
#include "devkit/device/operations.h"
#include "devkit/webapi/description.h"

namespace desk {
namespace fs = std::filesystem;
namespace {

constexpr unsigned kMostLines = 1000;
/// What fits into a request or an answer.
constexpr size_t kMostBytes = 512 << 10;
constexpr size_t kMostFiles = 1000;
constexpr char kServicesPath[] = "/desk/services.json";
constexpr char kControlFolder[] = "/desk/control-server";

using Method = Json::Value (*)(Device& device, const Json::Value& params);

/// What the running server needs; it is neither listed nor changed.
bool IsServers(const std::string& path) {
  return path == "/desk/admin-token" || path == "/desk/serving" || path == "/desk/control-server/port" ||
         path.rfind("/desk/trace.jsonl", 0) == 0;
}

/// Where a device path that a caller gave lies: a regular file or none yet. No folder on the way may be a link.
fs::path Place(const Device& device, const std::string& path) {
  const fs::path place = device.Locate(path);
  const bool plain = !path.empty() && path[0] == '/' && fs::path(path).lexically_normal().string() == path &&
                     path.find('\0') == std::string::npos && place.has_filename();
  if (!plain || IsServers(path)) throw ParamsError("'" + path + "' is no path of a file of the device");
  std::error_code error;
  const fs::file_type type = fs::symlink_status(place, error).type();
  if (fs::canonical(place.parent_path(), error) != place.parent_path() ||
      (type != fs::file_type::regular && type != fs::file_type::not_found)) {
    throw ParamsError("'" + path + "' is no regular file, leads through a link, or its folder is missing");
  }
  return place;
}

std::vector<std::string> ListPaths(const Device& device) {
  std::vector<std::string> paths;
  const auto options = fs::directory_options::skip_permission_denied;
  for (const auto& entry : fs::recursive_directory_iterator(device.Root(), options)) {
    if (entry.symlink_status().type() != fs::file_type::regular) continue;
    const std::string path = "/" + entry.path().lexically_relative(device.Root()).string();
    if (!IsServers(path)) paths.push_back(path);
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

/// JSON holds any text, but no other bytes.
bool IsText(const std::string& bytes) { return TryParseJson(ToLine(bytes)) == Json::Value(bytes); }

void Write(const fs::path& file, const std::string& text) {
  if (!StoreText(file, text)) throw FileError("cannot write '" + file.string() + "'");
}

Json::Value GetTrace(Device& device, const Json::Value& params) {
  const Json::UInt64 limit = std::min<Json::UInt64>(params.get("limit", kMostLines).asUInt64(), kMostLines);
  return device.trace.Recent(params.get("after", 0).asUInt64(), limit);
}

Json::Value AddFault(Device& device, const Json::Value& params) {
  try {
    return Object({{"id", device.faults.Add(params["fault"].asString())}});
  } catch (const std::invalid_argument& problem) {
    throw ParamsError(problem.what());
  }
}

Json::Value RemoveFault(Device& device, const Json::Value& params) {
  if (!params["id"].isUInt() || !device.faults.Remove(params["id"].asUInt()))
    throw ParamsError("there is no fault of this id");
  return true;
}

Json::Value GetFiles(Device& device, const Json::Value&) {
  Json::Value list(Json::arrayValue);
  for (const std::string& path : ListPaths(device)) {
    if (list.size() == kMostFiles) break;
    struct stat status;
    if (lstat(device.Locate(path).c_str(), &status) != 0) continue;
    char mode[8];
    std::snprintf(mode, sizeof(mode), "%04o", static_cast<unsigned>(status.st_mode & ALLPERMS));
    list.append(Object({{"path", path}, {"size", Json::Int64(status.st_size)}, {"mode", mode}}));
  }
  return list;
}

Json::Value ReadFile(Device& device, const Json::Value& params) {
  const fs::path file = Place(device, params["path"].asString());
  const auto text = LoadText(file);
  if (!text) throw ParamsError("there is no file '" + params["path"].asString() + "'");
  if (text->size() > kMostBytes || !IsText(*text)) {
    throw ParamsError("the file is larger than 512 KiB or no UTF-8 text; look at '" + file.string() + "' itself");
  }
  return Object({{"text", *text}});
}

/// Whether there is a control server in the device's folder.
bool HasControlServer(const Device& device) {
  return fs::is_directory(fs::symlink_status(device.Locate(kControlFolder)));
}

/// Keeps the module, and the device's control server, from files that are changed by hand.
class DeviceLock {
 public:
  explicit DeviceLock(const Device& device) : device_(device.Root()) {
    if (HasControlServer(device)) control_server_.emplace(device.Locate(kControlFolder));
  }

 private:
  FolderLock device_;
  std::optional<FolderLock> control_server_;
};

Json::Value WriteFile(Device& device, const Json::Value& params) {
  if (params["text"].asString().size() > kMostBytes) throw ParamsError("a file has 512 KiB at most");
  const DeviceLock lock(device);
  Write(Place(device, params["path"].asString()), params["text"].asString());
  return true;
}

void RemoveFile(const fs::path& file) {
  std::error_code error;
  fs::remove(file, error);
  if (error) throw FileError("cannot remove '" + file.string() + "': " + error.message());
}

/// Makes what is missing of the device, or `only` one file. Hold the device.
void FillNew(const Device& device, const std::string& only = "") {
  FillNewDevice(device.Root(), only);
  const bool is_meant = only.empty() || only == std::string(kControlFolder) + "/state.json";
  if (is_meant && HasControlServer(device)) ControlServer::FillNew(device.Locate(kControlFolder));
}

Json::Value ResetFile(Device& device, const Json::Value& params) {
  const DeviceLock lock(device);
  RemoveFile(Place(device, params["path"].asString()));
  FillNew(device, params["path"].asString());
  return true;
}

Json::Value Reset(Device& device, const Json::Value&) {
  const DeviceLock lock(device);
  device.faults.Clear();
  for (const std::string& path : ListPaths(device)) RemoveFile(device.Locate(path));
  FillNew(device);
  return true;
}

Json::Value ReadJson(const Device& device, const std::string& path) {
  return LoadJson(Place(device, path)).value_or(Json::Value());
}

Json::Value GetServices(Device& device, const Json::Value&) { return ReadJson(device, kServicesPath); }

Json::Value SetService(Device& device, const Json::Value& params) {
  const FolderLock lock(device.Root());
  Json::Value states = ReadJson(device, kServicesPath);
  const std::string name = params["name"].asString();
  if (!states.isObject()) throw ParamsError("'/desk/services.json' is broken; desk.reset_file makes it new");
  if (!states[name].isObject()) throw ParamsError("there is no service '" + name + "'");
  for (const char* member : {"enabled", "running"}) {
    if (params.isMember(member)) states[name][member] = params[member];
  }
  Write(Place(device, kServicesPath), states.toStyledString());
  return true;
}

/// What a file of the control server holds; `otherwise` where there is none in the folder, or the file is missing or
/// broken.
Json::Value ReadControl(const Device& device, const char* file, const Json::Value& otherwise) {
  if (!HasControlServer(device)) return otherwise;
  const Json::Value document = ReadJson(device, std::string(kControlFolder) + file);
  return document.type() == otherwise.type() ? document : otherwise;
}

Json::Value GetControlState(Device& device, const Json::Value&) {
  return ReadControl(device, "/state.json", Json::objectValue);
}

Json::Value GetControlScript(Device& device, const Json::Value&) {
  return ReadControl(device, "/script.json", Json::arrayValue);
}

Json::Value SetControlScript(Device& device, const Json::Value& params) {
  for (const Json::Value& step : params["script"]) {
    if (!step.isObject()) throw ParamsError("a step of the script is no object");
  }
  const DeviceLock lock(device);
  Write(Place(device, std::string(kControlFolder) + "/script.json"), params["script"].toStyledString());
  return true;
}

const std::map<std::string, Method>& Methods() {
  static const std::map<std::string, Method> methods = {
      {"desk.add_fault", AddFault},
      {"desk.clear_faults",
       [](Device& device, const Json::Value&) { return device.faults.Clear(), Json::Value(true); }},
      {"desk.control_script", GetControlScript},
      {"desk.control_state", GetControlState},
      {"desk.faults", [](Device& device, const Json::Value&) { return device.faults.List(); }},
      {"desk.files", GetFiles},
      {"desk.operations", [](Device&, const Json::Value&) { return ListOperations(); }},
      {"desk.read_file", ReadFile},
      {"desk.remove_fault", RemoveFault},
      {"desk.reset", Reset},
      {"desk.reset_file", ResetFile},
      {"desk.services", GetServices},
      {"desk.set_control_script", SetControlScript},
      {"desk.set_service", SetService},
      {"desk.trace", GetTrace},
      {"desk.write_file", WriteFile},
  };
  return methods;
}

bool HasType(const Json::Value& value, const std::string& type) {
  if (type == "string") return value.isString();
  if (type == "boolean") return value.isBool();
  if (type == "array") return value.isArray();
  return type == "integer" && value.isUInt64();
}

/// Holds parameters against those of a description.
void CheckParams(const Json::Value& described, const Json::Value& params) {
  Json::Value::Members unknown = params.getMemberNames();
  for (const Json::Value& param : described) {
    const std::string name = param["name"].asString();
    unknown.erase(std::remove(unknown.begin(), unknown.end(), name), unknown.end());
    const std::string type = param["schema"]["type"].asString();
    if (param["required"].asBool() && !params.isMember(name)) throw ParamsError("'" + name + "' is missing");
    if (params.isMember(name) && !HasType(params[name], type)) throw ParamsError("'" + name + "' is no " + type);
  }
  if (!unknown.empty()) throw ParamsError("there is no parameter '" + unknown.front() + "'");
}

}  // namespace

bool IsDeskMethod(const std::string& name) { return Methods().count(name) != 0; }

Json::Value CallDeskMethod(Device& device, const std::string& name, const Json::Value& params) {
  for (const Json::Value& method : Description()["x-desk-methods"]) {
    if (method["name"] == name) CheckParams(method["params"], params);
  }
  return Methods().at(name)(device, params);
}

}  // namespace desk
