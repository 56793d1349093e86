// The methods call by call, as the tables in tests/data have it.

#include <fnmatch.h>

#include <algorithm>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

/// A call on a device whose daemon configuration holds an alias, an account and a control server.
class TableTest : public DeskTest, public testing::WithParamInterface<Row> {
 protected:
  TableTest() { Write(kConf, kReadyConf); }
};

/// Every way in which a method fails: its code, its log lines and what is left on the device.
class FailureTest : public TableTest {};

TEST_P(FailureTest, AnswersAndLogs) {
  const bool may_change = GetParam()[5] == "changed";
  if (may_change) StartControlServer();
  Arrange(GetParam()[2]);
  const auto before = Snapshot();

  const Outcome outcome = TryMethod(MethodOf(GetParam()), ParseJson(Params(GetParam()[1])));

  if (GetParam()[3] == "throws") {
    EXPECT_TRUE(outcome.thrown && outcome.answers.empty());
  } else {
    ASSERT_EQ(outcome.Problem(), "");
    const Answer& answer = outcome.answers.front();
    EXPECT_EQ(answer.code, std::stoi(GetParam()[3]));
    EXPECT_EQ(answer.success, answer.code == 0);
    EXPECT_TRUE(answer.success || answer.data.isNull());
  }
  EXPECT_EQ(Logs(), Parts(GetParam()[4]));
  EXPECT_EQ(device->faults.Unmet(), std::vector<std::string>());
  EXPECT_TRUE(may_change || Snapshot() == before);
}

INSTANTIATE_TEST_SUITE_P(Each, FailureTest, testing::ValuesIn(ReadTable("failures.txt")), NameOfRow);

/// What the reading methods give, to anybody.
class PayloadTest : public TableTest {};

TEST_P(PayloadTest, IsGivenToEverybody) {
  StartControlServer();
  Arrange(GetParam()[1]);
  for (const bool admin : {false, true}) {
    const Answer answer = CallMethod(MethodOf(GetParam()), "{}", admin);
    EXPECT_TRUE(answer.success);
    EXPECT_EQ(ToLine(answer.data), ToLine(ParseJson(GetParam()[2])));
    EXPECT_EQ(Count("APIRequest::IsAdmin"), 0u);
  }
}

INSTANTIATE_TEST_SUITE_P(Each, PayloadTest, testing::ValuesIn(ReadTable("payloads.txt")), NameOfRow);

/// What a method asks of the device, in order, and what it hands over.
class OrderTest : public TableTest {};

TEST_P(OrderTest, OfOperations) {
  const std::string& pattern = GetParam()[3];
  StartControlServer();
  Arrange(GetParam()[2]);
  CallMethod(MethodOf(GetParam()), Params(GetParam()[1]));
  std::string named = " " + pattern + " ";
  std::replace(named.begin(), named.end(), '*', ' ');
  std::string operations;
  Json::Value arguments(Json::arrayValue);
  for (const Json::Value& line : device->trace.Lines()) {
    const std::string operation = line["op"].asString() + " ";
    if (operation != "syslog " && operation.rfind("API", 0) != 0) operations += operation;
    if (named.find(" " + operation) != std::string::npos) arguments.append(line["args"]);
  }
  EXPECT_EQ(fnmatch((pattern + " ").c_str(), operations.c_str(), 0), 0) << operations;
  if (GetParam()[4] == "-") return;
  EXPECT_EQ(ToLine(arguments), ToLine(ParseJson("[" + GetParam()[4] + "]")));
}

INSTANTIATE_TEST_SUITE_P(Each, OrderTest, testing::ValuesIn(ReadTable("orders.txt")), NameOfRow);

}  // namespace
}  // namespace desk
