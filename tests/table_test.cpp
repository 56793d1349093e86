// The methods call by call, as tests/data/calls.txt has it.

#include <fnmatch.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

class CallTest : public DeskTest, public testing::WithParamInterface<Row> {};

TEST_P(CallTest, AnswersLogsAndAsks) {
  const auto& [name, params, given, answer, log, files, asked, handed_over] = GetParam();
  const std::string method = MethodOf(GetParam());
  const bool reads = method.find("set") == std::string::npos;
  StartControlServer();
  Write(kConf, kReadyConf);
  Arrange(given);
  const auto before = Snapshot();

  EXPECT_EQ(Told(TryMethod(method, ParseJson(Params(params)), /*admin=*/!reads)), answer);

  EXPECT_EQ(Logs(), Parts(log));
  EXPECT_EQ(device->faults.Unmet(), Names());
  EXPECT_EQ(files == "changed", Snapshot() != before);
  EXPECT_EQ(Count("APIRequest::IsAdmin") == 0, reads);
  std::string operations;
  Names handed;
  for (const Json::Value& line : device->trace.Lines()) {
    const std::string operation = line["op"].asString() + " ";
    if (operation != "syslog " && operation.rfind("API", 0) != 0) operations += operation;
    if (handed_over.find(operation) != std::string::npos) handed.push_back(operation + ToLine(line["args"]));
  }
  EXPECT_TRUE(asked == "-" || fnmatch((asked + " ").c_str(), operations.c_str(), 0) == 0) << operations;
  EXPECT_EQ(handed, Parts(handed_over));
}

INSTANTIATE_TEST_SUITE_P(Each, CallTest, testing::ValuesIn(ReadTable("calls.txt")), NameOfRow);

}  // namespace
}  // namespace desk
