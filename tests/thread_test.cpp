// All methods at once on eight threads. Calls that meet a file another thread is rewriting may fail; each must
// be answered, and wholly.

#include <cstdlib>
#include <iostream>
#include <set>
#include <thread>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

constexpr size_t kThreads = 8;

/// Without the values that differ from moment to moment.
std::string Steady(Json::Value data) {
  if (!data.isObject()) return ToLine(data);
  for (const char* member : {"server_id", "status", "alias_status", "enabled"}) {
    if (data.isMember(member)) data[member] = data[member].type();
  }
  return ToLine(data);
}

/// What is wrong about how a call went; empty when nothing is.
std::string Judge(const Outcome& outcome, const std::string& expected) {
  if (!outcome.Problem().empty()) return outcome.Problem();
  const Answer& answer = outcome.answers.front();
  if (!answer.success) return answer.data.isNull() && answer.code >= 2900 && answer.code <= 2906 ? "" : "torn error";
  return Steady(answer.data) == expected ? "" : "gave " + ToLine(answer.data);
}

using ThreadTest = DeskTest;

TEST_F(ThreadTest, EightThreadsCallEverythingAtOnce) {
  device->trace.SetSink([](const auto&, const auto&) {});
  StartControlServer();
  // The control server has to give the server id, or it would not know the device.
  Json::Value conf = ParseJson(kReadyConf);
  conf["server_id"] = "";
  Write(kConf, ToLine(conf));
  const std::vector<APITableEntry>& rows = TheModule().Rows();
  Json::Value params = ParseJson(kAliasV1);
  params["enabled"] = true;
  params["services"] = Args(Object({{"id", "web"}, {"enabled", true}}));
  Write(kServices, ToLine(params["services"]));

  Names alone;
  std::set<std::string> names;
  for (const APITableEntry& row : rows) {
    const Outcome outcome = Call(row.handler, params, true);
    ASSERT_TRUE(outcome.Problem().empty() && outcome.answers[0].success) << MethodName(row);
    alone.push_back(Steady(outcome.answers[0].data));
    names.insert(MethodName(row));
  }

  const char* asked = std::getenv("DESK_THREAD_CALLS");  // the thread sanitizer's run asks for more
  const size_t calls = std::stoul(asked == nullptr ? "2000" : asked) / kThreads;
  std::vector<std::set<std::string>> seen(kThreads);
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (size_t call = 0; call < calls; ++call) {
        const size_t number = (thread + call) % rows.size();
        const Outcome outcome = Call(rows[number].handler, params, true);
        const std::string problem = Judge(outcome, alone[number]);
        if (!problem.empty() || outcome.answers[0].success) seen[thread].insert(MethodName(rows[number]) + problem);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t thread = 1; thread < kThreads; ++thread) seen[0].merge(seen[thread]);
  EXPECT_EQ(seen[0], names) << "each method succeeds at times, and nothing is wrong with the others";
  std::cout << calls * kThreads << " calls on " << kThreads << " threads\n";
}

}  // namespace
}  // namespace desk
