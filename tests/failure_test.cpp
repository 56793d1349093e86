// Every way in which a method fails: its code, its log lines and what is left on the device.

#include "tests/desk_fixture.h"

namespace desk {
namespace {

using Row = std::vector<std::string>;

class FailureTest : public DeskTest, public testing::WithParamInterface<Row> {};

TEST_P(FailureTest, AnswersAndLogs) {
  const std::string method = GetParam()[0];
  const int code = std::stoi(GetParam()[3]);
  const bool may_change = GetParam()[5] == "changed";
  Write(kConf, kReadyConf);
  Arrange(GetParam()[2]);
  if (may_change) StartControlServer();
  const auto before = Snapshot();

  const Answer answer = CallMethod(method, Params(GetParam()[1]));

  EXPECT_EQ(answer.success, code == 0);
  EXPECT_EQ(answer.code, code);
  EXPECT_TRUE(answer.success || answer.data.isNull());
  EXPECT_EQ(Logs(), Parts(GetParam()[4]));
  EXPECT_EQ(device->faults.Unmet(), std::vector<std::string>());
  EXPECT_TRUE(may_change || Snapshot() == before);
}

INSTANTIATE_TEST_SUITE_P(Each, FailureTest, testing::ValuesIn(ReadTable("failures.txt")), [](const auto& row) {
  std::string name = row.param[0] + "_" + std::to_string(row.index);
  for (char& letter : name) letter = letter == '/' ? '_' : letter;
  return name;
});

}  // namespace
}  // namespace desk
