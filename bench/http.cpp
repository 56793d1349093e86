// bench-http PORT FOLDER   One method called in this process, and by HTTP keep-alive from a `webapi-host serve` on
// PORT. The device of this process lies in FOLDER and writes its trace to a file, as that program's does.

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>

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

size_t Take(char* data, size_t, size_t size, void* answer) {
  static_cast<std::string*>(answer)->append(data, size);
  return size;
}

void CallOverHttp(benchmark::State& state, CURL* client, double& slowest) {
  std::string answer;
  curl_easy_setopt(client, CURLOPT_WRITEFUNCTION, &Take);
  curl_easy_setopt(client, CURLOPT_WRITEDATA, &answer);
  while (state.KeepRunning()) {
    answer.clear();
    const auto start = Clock::now();
    const CURLcode result = curl_easy_perform(client);
    slowest = std::max(slowest, Milliseconds(Clock::now() - start).count());
    if (result != CURLE_OK || answer.find("\"result\"") == std::string::npos) state.SkipWithError("the call failed");
  }
}

int Run(int port, const std::string& folder) {
  desk::Device device(folder);
  std::ofstream trace(folder + "/desk/trace.jsonl");
  device.trace.SetSink([&trace](const std::string& lines, const auto&) { trace << lines << std::flush; });
  const desk::Module module(MODULE_FILE);
  const APIHandler handler = module.Find("VEXA.Core.TunnelBridge.Permission", 1, "get");

  constexpr char kBody[] = R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge.Permission/1/get"})";
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> client(curl_easy_init(), &curl_easy_cleanup);
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
      curl_slist_append(nullptr, "Content-Type: application/json"), &curl_slist_free_all);
  curl_easy_setopt(client.get(), CURLOPT_URL, ("http://127.0.0.1:" + std::to_string(port) + "/rpc").c_str());
  curl_easy_setopt(client.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(client.get(), CURLOPT_POSTFIELDS, kBody);
  double slowest = 0;

  benchmark::RegisterBenchmark(kInProcess, [=](auto& state) { CallInProcess(state, handler); })->UseRealTime();
  benchmark::RegisterBenchmark(kHttp, [&](auto& state) { CallOverHttp(state, client.get(), slowest); })->UseRealTime();
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
