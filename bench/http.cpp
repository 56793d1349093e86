// bench-http PORT FOLDER   One method called in this process, and by HTTP keep-alive from a `webapi-host serve` on
// PORT. The device of this process lies in FOLDER and writes its trace to a file, as that program's does.

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "devkit/device/device.h"
#include "devkit/webapi/module.h"
#include "report.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr char kInProcess[] = "in-process";
constexpr char kHttp[] = "HTTP";
/// What a delayed acknowledgement costs.
constexpr double kStallMilliseconds = 40;

void CallInProcess(benchmark::State& state, APIHandler handler) {
  while (state.KeepRunning()) {
    const desk::Outcome outcome = desk::Call(handler, Json::objectValue, false);
    if (outcome.answers.size() != 1 || !outcome.answers[0].success) state.SkipWithError("the call failed");
  }
}

void CallOverHttp(benchmark::State& state, httplib::Client& client, double& slowest) {
  constexpr char kBody[] = R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge.Permission/1/get"})";
  while (state.KeepRunning()) {
    const auto start = Clock::now();
    const auto answer = client.Post("/rpc", kBody, "application/json");
    slowest = std::max(slowest, Milliseconds(Clock::now() - start).count());
    if (!answer || answer->body.find("\"result\"") == std::string::npos) state.SkipWithError("the call failed");
  }
}

int Run(int port, const std::string& folder) {
  desk::Device device(folder);
  std::ofstream trace(folder + "/desk/trace.jsonl");
  device.trace.SetSink([&trace](const Json::Value&, const std::string& line) { trace << line << std::endl; });
  const desk::Module module(MODULE_FILE);
  const APIHandler handler = module.Find("VEXA.Core.TunnelBridge.Permission", 1, "get");

  httplib::Client client("127.0.0.1", port);
  client.set_keep_alive(true);
  client.set_tcp_nodelay(true);
  double slowest = 0;

  benchmark::RegisterBenchmark(kInProcess, [=](auto& state) { CallInProcess(state, handler); })->UseRealTime();
  benchmark::RegisterBenchmark(kHttp, [&](auto& state) { CallOverHttp(state, client, slowest); })->UseRealTime();
  const auto times = RunInterleaved();
  PrintRow("Permission get: us, in-process beside HTTP", times.at(kInProcess).microseconds,
           times.at(kHttp).microseconds, AtMost(0.5));
  PrintRow("Permission get: ms, slowest over HTTP beside a stall", slowest, kStallMilliseconds, AtMost(0.99));
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: bench-http PORT FOLDER\n", stderr);
    return 2;
  }
  try {
    return bench::Run(std::stoi(argv[1]), argv[2]);
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "bench-http: %s\n", problem.what());
    return 1;
  }
}
