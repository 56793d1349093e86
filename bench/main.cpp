// bench count FOLDER    Runs all work a fixed number of times; under callgrind, which leaves a dump for each.
// bench report FOLDER   Measures times and prints the table, with the instruction counts of the dumps in FOLDER.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
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
constexpr char kOneThread[] = ", one thread";
constexpr char kEightThreads[] = ", eight threads";
const std::string kShared = "get version 1, 64 KB";
const std::string kArithmetic = "arithmetic loop";
/// The least throughput, beside one thread's, of threads that have two cores.
constexpr double kTwoCores = 1.7;

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
  Goal instructions;
  Goal allocations;
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
                int calls, const Goal& goal) {
  fs::create_directories(root + kConfFolder);
  std::ofstream(root + kConfFolder + "/vexarelayd.conf") << Configuration(bytes);
  const auto add = [&](const std::string& method, int version, void (*floor)()) {
    const APIHandler handler = Find(module, kApi, version, method);
    const std::string name = method + " version " + std::to_string(version) + ", " + size;
    works.push_back({name, root, calls, [=] { Call(handler, {}); }, floor, {}, goal, AtMost(0.95)});
  };
  add("status", 1, floors::Status);
  add("get", 1, floors::Get);
  add("get", 2, floors::Get);
}

Work MakeWriting(void* module, const std::string& root, unsigned entries, int calls, const Goal& goal) {
  fs::create_directories(root + kConfFolder);
  const APIHandler handler = Find(module, std::string(kApi) + ".Permission", 1, "set");
  const auto services = std::make_shared<const Json::Value>(Services(entries));
  const Side floor = [=] { floors::SetPermission(*services); };
  const std::string name = "Permission set, " + std::to_string(entries);
  return {name, root, calls, [=] { Call(handler, *services); }, floor, {}, goal, {}};
}

/// Loads a copy of the module: the loader would only count a second load of the file in use.
Work MakeLoading(const std::string& name, const std::string& root, const char* library_file, const Goal& goal) {
  const std::string copy = root + "/copy.so";
  fs::copy_file(MODULE_FILE, copy, fs::copy_options::overwrite_existing);
  const auto library = std::make_shared<void*>();
  const Side floor = [=] { *library = Open(library_file); };
  return {name, root, 10, [=] { *library = Open(copy); }, floor, [=] { dlclose(*library); }, goal, {}};
}

std::vector<Work> MakeWorks(const std::string& folder) {
  void* module = Open(MODULE_FILE);
  std::vector<Work> works;
  AddReading(works, module, folder + "/1", "1 KB", 1024, 100, AtMost(0.90));
  AddReading(works, module, folder + "/2", "64 KB", 64 * 1024, 10, AtMost(0.90));
  AddReading(works, module, folder + "/3", "1 MB", 1024 * 1024, 1, {});
  works.push_back(MakeWriting(module, folder, 10, 100, {}));
  works.push_back(MakeWriting(module, folder, 1000, 10, AtMost(1.10)));
  works.push_back(MakeWriting(module, folder, 10000, 1, {}));
  works.push_back(MakeWriting(module, folder, 100000, 1, {}));
  works.push_back(MakeLoading("loading", folder, EMPTY_LIBRARY_FILE, AtMost(3)));
  works.push_back(MakeLoading("loading, beside looking up the names", folder, NAMES_LIBRARY_FILE, {}));
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

void Time(benchmark::State& state, const Work& work, const Side& side) {
  inert::root = work.root;
  while (state.KeepRunning()) {
    side();
    if (!work.undo) continue;
    state.PauseTiming();
    work.undo();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations());
}

/// What shares nothing between threads shows how many cores they really have.
void Compute(benchmark::State& state) {
  std::uint32_t value = 1;
  while (state.KeepRunning()) {
    for (int step = 0; step < 100000; ++step) value = value * 1664525 + 1013904223;
    benchmark::DoNotOptimize(value);
  }
  state.SetItemsProcessed(state.iterations());
}

template <typename Function>
void RegisterThreads(const std::string& name, Function function) {
  benchmark::RegisterBenchmark((name + kOneThread).c_str(), function)->Threads(1)->UseRealTime();
  benchmark::RegisterBenchmark((name + kEightThreads).c_str(), function)->Threads(8)->UseRealTime();
}

void ReportInstructions(const std::vector<Work>& works, const fs::path& dumps) {
  auto counts = ReadDumps(dumps);
  for (const Work& work : works) {
    const double ours = counts.at(work.name + kOurs) /= work.calls;
    const double floor = counts.at(work.name + kFloor) /= work.calls;
    PrintRow(work.name + ": instructions", ours, floor, work.instructions);
  }
  PrintRow("Permission set: instructions, 10000 beside 1000", counts.at("Permission set, 10000 (ours)"),
           counts.at("Permission set, 1000 (ours)"), AtMost(10.5));
}

void ReportResources(const std::vector<Work>& works) {
  std::vector<long> opens;
  for (const Work& work : works) {
    if (work.allocations.kind == Goal::Kind::kNone) continue;
    RunOnce(work, work.ours);
    const inert::Counts ours = RunOnce(work, work.ours);
    const inert::Counts floor = RunOnce(work, work.floor);
    PrintRow(work.name + ": heap allocations", ours.allocations, floor.allocations, work.allocations);
    opens.push_back(ours.opens);
  }
  PrintRow("status, get: opened files per call, at least", *std::min_element(opens.begin(), opens.end()), 1,
           Exactly(1));
  PrintRow("status, get: opened files per call, at most", *std::max_element(opens.begin(), opens.end()), 1, Exactly(1));
}

/// Only a machine that gives this process two cores can show the throughput aimed at.
void ReportScaling(const std::map<std::string, Timing>& times) {
  const auto rate = [&](const std::string& name) { return times.at(name).items_per_second; };
  const double machine = rate(kArithmetic + kEightThreads) / rate(kArithmetic + kOneThread);
  PrintRow(kShared + ": calls/s, eight threads beside one", rate(kShared + kEightThreads), rate(kShared + kOneThread),
           machine >= kTwoCores ? AtLeast(kTwoCores) : Goal());
  PrintRow(kArithmetic + ": the same", rate(kArithmetic + kEightThreads), rate(kArithmetic + kOneThread));
}

void ReportTimes(const std::vector<Work>& works) {
  for (const Work& work : works) {
    benchmark::RegisterBenchmark((work.name + kOurs).c_str(), [&](auto& state) { Time(state, work, work.ours); });
    benchmark::RegisterBenchmark((work.name + kFloor).c_str(), [&](auto& state) { Time(state, work, work.floor); });
    if (work.name == kShared) RegisterThreads(kShared, [&](auto& state) { Time(state, work, work.ours); });
  }
  RegisterThreads(kArithmetic, Compute);
  const auto times = RunInterleaved();
  for (const Work& work : works) {
    PrintRow(work.name + ": us", times.at(work.name + kOurs).microseconds, times.at(work.name + kFloor).microseconds);
  }
  ReportScaling(times);
}

void Run(const std::string& mode, const fs::path& folder) {
  const fs::path dumps = folder / "dumps";
  const std::vector<Work> works = MakeWorks(folder);
  if (mode == "count") {
    for (const Work& work : works) {
      CountInstructions(work, work.name + kOurs, work.ours);
      CountInstructions(work, work.name + kFloor, work.floor);
    }
    return;
  }
  PrintHeader();
  ReportInstructions(works, dumps);
  ReportResources(works);
  ReportTimes(works);
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
    bench::Run(mode, argv[2]);
    return 0;
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "bench: %s\n", problem.what());
    return 1;
  }
}
