// bench count FOLDER    Runs all work a fixed number of times; under callgrind, which leaves a dump for each.
// bench report FOLDER   Prints the table, with the instruction counts of the dumps in FOLDER.
// Exit code 1 when a bound does not hold.

#include <dlfcn.h>
#include <valgrind/callgrind.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <vector>

#include "floors.h"
#include "inert_platform.h"
#include "report.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr char kApi[] = "VEXA.Core.TunnelBridge";
constexpr char kConfFolder[] = "/usr/vexa/etc/vexarelayd";
constexpr char kOurs[] = " (ours)";
constexpr char kFloor[] = " (floor)";

using Side = std::function<void()>;

/// Work of the module, and the least that such work takes.
struct Work {
  std::string name;
  std::string root;
  /// How often the counting mode runs each side.
  int calls;
  Side ours;
  Side floor;
  /// Takes back, unmeasured, what a side did; may be empty.
  Side undo;
  /// The most that the ratio of ours to the floor may be; allocations of 0 are not compared.
  double instructions;
  double allocations;
};

void* Open(const std::string& file) {
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(dlerror());
  return library;
}

APIHandler Find(void* module, const std::string& api, int version, const std::string& method) {
  const auto entry = reinterpret_cast<const APITableEntry* (*)()>(dlsym(module, "GetAPITable"));
  if (entry == nullptr) throw std::runtime_error(dlerror());
  for (const APITableEntry* row = entry(); row->api != nullptr; ++row) {
    if (api == row->api && version == row->version && method == row->method) return row->handler;
  }
  throw std::runtime_error("the module has no method " + method + " of " + api);
}

/// An error answer would be measured as well as any other.
void Call(APIHandler handler, const Json::Value& param) {
  VEXA::APICall call{param};
  VEXA::APIRequest request(call);
  VEXA::APIResponse response(call);
  handler(&request, &response);
  if (call.successes != 1) throw std::runtime_error("a measured call does not succeed");
}

/// A daemon configuration of about `bytes` bytes: the sections in use, and others with members of all types.
std::string Configuration(size_t bytes) {
  Json::Value conf;
  conf["server_id"] = inert::kServerId;
  conf["server_alias"]["name"] = inert::kAlias;
  conf["server_control"]["host"] = "control.vexa.example";
  conf["server_control"]["region"] = inert::kRegion;
  conf["server_kova"]["account"] = inert::kAccount;
  Json::Value section;
  section["host"] = "node.relay.vexa.example";
  section["port"] = 8443;
  section["weight"] = 0.5;
  section["tls"] = true;
  section["fallback"] = Json::Value();
  const size_t own_bytes = conf.toStyledString().size();
  conf["node_1"] = section;
  const size_t section_bytes = conf.toStyledString().size() - own_bytes;
  const size_t sections = (bytes - own_bytes) / section_bytes;
  for (size_t count = 2; count <= sections; ++count) conf["node_" + std::to_string(count)] = section;
  return conf.toStyledString();
}

Json::Value Services(unsigned entries) {
  Json::Value services(Json::arrayValue);
  for (unsigned entry = 0; entry < entries; ++entry) {
    Json::Value& service = services.append(Json::objectValue);
    service["id"] = "service-" + std::to_string(entry);
    service["enabled"] = entry % 2 == 0;
  }
  return services;
}

void AddReading(std::vector<Work>& works, void* module, const std::string& root, const std::string& size, size_t bytes,
                int calls, const std::array<double, 3>& bounds) {
  fs::create_directories(root + kConfFolder);
  std::ofstream(root + kConfFolder + "/vexarelayd.conf") << Configuration(bytes);
  const auto add = [&](const std::string& method, int version, void (*floor)(), double bound) {
    const APIHandler handler = Find(module, kApi, version, method);
    const std::string name = method + " version " + std::to_string(version) + ", " + size;
    works.push_back({name, root, calls, [=] { Call(handler, {}); }, floor, {}, bound, 0.95});
  };
  add("status", 1, floors::Status, bounds[0]);
  add("get", 1, floors::Get, bounds[1]);
  add("get", 2, floors::Get, bounds[2]);
}

Work MakeWriting(void* module, const std::string& root, unsigned entries, int calls, double bound) {
  fs::create_directories(root + kConfFolder);
  const APIHandler handler = Find(module, std::string(kApi) + ".Permission", 1, "set");
  const auto services = std::make_shared<const Json::Value>(Services(entries));
  const Side floor = [=] { floors::SetPermission(*services); };
  const std::string name = "Permission set, " + std::to_string(entries);
  return {name, root, calls, [=] { Call(handler, *services); }, floor, {}, bound, 0};
}

/// Loads a copy of the module: the loader would only count a second load of the file in use.
Work MakeLoading(const std::string& root) {
  const std::string copy = root + "/copy.so";
  fs::copy_file(MODULE_FILE, copy, fs::copy_options::overwrite_existing);
  const auto library = std::make_shared<void*>();
  const Side floor = [=] { *library = Open(NAMES_LIBRARY_FILE); };
  return {"loading", root, 10, [=] { *library = Open(copy); }, floor, [=] { dlclose(*library); }, 1.05, 0};
}

std::vector<Work> MakeWorks(const std::string& folder) {
  void* module = Open(MODULE_FILE);
  std::vector<Work> works;
  AddReading(works, module, folder + "/1", "1 KB", 1024, 100, {0.71, 0.82, 0.84});
  AddReading(works, module, folder + "/2", "64 KB", 64 * 1024, 10, {0.82, 0.82, 0.82});
  works.push_back(MakeWriting(module, folder, 1000, 10, 1.10));
  works.push_back(MakeWriting(module, folder, 10000, 1, 1.10));
  works.push_back(MakeLoading(folder));
  return works;
}

/// Runs a side once and returns what it used. A first run fills caches of the loader and the allocator.
inert::Counts RunOnce(const Work& work, const Side& side) {
  inert::root = work.root;
  const inert::Counts before = inert::counts;
  side();
  const inert::Counts after = inert::counts;
  if (work.undo) work.undo();
  return {after.allocations - before.allocations, after.opens - before.opens};
}

void CountInstructions(const Work& work, const std::string& name, const Side& side) {
  RunOnce(work, side);
  for (int call = 0; call < work.calls; ++call) {
    CALLGRIND_START_INSTRUMENTATION;
    side();
    CALLGRIND_STOP_INSTRUMENTATION;
    if (work.undo) work.undo();
  }
  CALLGRIND_DUMP_STATS_AT(name.c_str());
}

/// Instructions by the name of the dump.
std::map<std::string, double> ReadDumps(const fs::path& folder) {
  constexpr std::string_view kName = "desc: Trigger: Client Request: ";
  constexpr std::string_view kTotal = "totals: ";
  std::map<std::string, double> instructions;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    std::ifstream file(entry.path());
    std::string name;
    for (std::string line; std::getline(file, line);) {
      if (line.compare(0, kName.size(), kName) == 0) name = line.substr(kName.size());
      if (line.compare(0, kTotal.size(), kTotal) == 0) instructions[name] = std::stod(line.substr(kTotal.size()));
    }
  }
  return instructions;
}

bool ReportInstructions(const std::vector<Work>& works, const fs::path& dumps) {
  auto counts = ReadDumps(dumps);
  bool holds = true;
  for (const Work& work : works) {
    const double ours = counts.at(work.name + kOurs) /= work.calls;
    const double floor = counts.at(work.name + kFloor) /= work.calls;
    holds &= PrintRow(work.name + ": instructions", ours, floor, work.instructions);
  }
  return holds & PrintRow("Permission set: instructions, 10000 beside 1000", counts.at("Permission set, 10000 (ours)"),
                          counts.at("Permission set, 1000 (ours)"), 10.5);
}

bool ReportResources(const std::vector<Work>& works) {
  bool holds = true;
  for (const Work& work : works) {
    if (work.allocations == 0) continue;
    RunOnce(work, work.ours);
    const inert::Counts ours = RunOnce(work, work.ours);
    const inert::Counts floor = RunOnce(work, work.floor);
    holds &= PrintRow(work.name + ": heap allocations", ours.allocations, floor.allocations, work.allocations);
    holds &= PrintRow(work.name + ": opened files", ours.opens, floor.opens, 1);
  }
  return holds;
}

/// False when a bound does not hold.
bool Run(const std::string& mode, const fs::path& folder) {
  const fs::path dumps = folder / "dumps";
  const std::vector<Work> works = MakeWorks(folder);
  if (mode == "count") {
    for (const Work& work : works) {
      CountInstructions(work, work.name + kOurs, work.ours);
      CountInstructions(work, work.name + kFloor, work.floor);
    }
    return true;
  }
  PrintHeader();
  const bool instructions = ReportInstructions(works, dumps);
  return ReportResources(works) && instructions;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const std::string mode = argc == 3 ? argv[1] : "";
  if (mode != "count" && mode != "report") {
    std::fputs("usage: bench count FOLDER | bench report FOLDER\n", stderr);
    return 2;
  }
  try {
    return bench::Run(mode, argv[2]) ? 0 : 1;
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "bench: %s\n", problem.what());
    return 1;
  }
}
