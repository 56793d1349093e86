// All methods at once on eight threads. Calls that meet a file another thread is rewriting may fail; each must
// be answered, and wholly.

#include <cstdlib>
#include <iostream>
#include <thread>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

constexpr int kThreads = 8;

/// The thread sanitizer's run asks for more.
int CallsInAll() {
  const char* calls = std::getenv("DESK_THREAD_CALLS");
  return calls == nullptr ? 2000 : std::atoi(calls);
}

/// What is wrong about how a call went; empty when nothing is.
std::string Judge(const APITableEntry& row, const Outcome& outcome) {
  if (outcome.answers.size() + (outcome.thrown ? 1 : 0) != 1) return "not answered once";
  if (outcome.thrown) return "left with an exception: " + *outcome.thrown;
  const Answer& answer = outcome.answers.front();
  if (!answer.success) return answer.data.isNull() && answer.code >= 2900 && answer.code <= 2906 ? "" : "torn error";
  if (std::string(row.method) == "get" && answer.data.isMember("domain") && answer.data.size() != 6) return "torn get";
  return "";
}

TEST_F(DeskTest, EightThreadsCallEverythingAtOnce) {
  device->trace.SetSink([](const Json::Value&, const std::string&) {});
  StartControlServer();
  Write(kConf, kReadyConf);
  const std::vector<APITableEntry>& rows = TheModule().Rows();
  Json::Value params = ParseJson(kAliasV1);
  params["enabled"] = true;
  params["services"][0]["id"] = "web";
  params["services"][0]["enabled"] = true;

  const int calls = CallsInAll() / kThreads;
  std::vector<std::map<std::string, int>> problems(kThreads);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int call = 0; call < calls; ++call) {
        const APITableEntry& row = rows[static_cast<size_t>(thread + call) % rows.size()];
        const std::string problem = Judge(row, Call(row.handler, params, true));
        if (!problem.empty()) ++problems[static_cast<size_t>(thread)][problem];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& of_thread : problems) EXPECT_EQ(of_thread, (std::map<std::string, int>()));
  std::cout << calls * kThreads << " calls on " << kThreads << " threads\n";
}

}  // namespace
}  // namespace desk
