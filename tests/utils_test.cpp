// Functions of the module that no method shows whole.

#include "utils.h"

#include <set>

#include "error_codes.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

using VEXA::Relay::ALIAS_RET;
using VEXA::Relay::RELAYD_RET;

using UtilsTest = DeskTest;

TEST(ErrorCodes, StandForTheResultsOfTheLibrary) {
  const std::map<int, int> relay = {{0, 2907},  {5, 2905},  {6, 2902},  {7, 2902}, {8, 2905},
                                    {10, 2903}, {12, 2903}, {13, 2903}, {14, 2903}};
  const std::map<int, int> alias = {{1, 2907}, {3, 2904}, {4, 2903}, {5, 2901},  {6, 2902},
                                    {7, 2902}, {8, 2905}, {9, 2903}, {10, 2903}, {12, 2906}};
  const auto code_of = [](const auto& codes, int result) { return codes.count(result) == 0 ? 2900 : codes.at(result); };
  for (int result = -1; result <= 256; ++result) {
    EXPECT_EQ(MapRelayErrorCode(static_cast<RELAYD_RET>(result)), code_of(relay, result)) << result;
    EXPECT_EQ(MapAliasErrorCode(static_cast<ALIAS_RET>(result)), code_of(alias, result)) << result;
  }
}

TEST(ErrorCodes, AMapListsAResultOnceAndEndsWith255) {
  const auto expect_map = [](const auto& map) {
    std::set<int> listed;
    for (const ErrorCodeRow& row : map) EXPECT_TRUE(listed.insert(row.result).second) << row.result;
    EXPECT_EQ(std::end(map)[-1].result, 255);
  };
  expect_map(grgRelayErrorCodeMap);
  expect_map(grgAliasErrorCodeMap);
}

/// It is left off, started, reloaded, stopped and left off.
TEST_F(UtilsTest, ADaemonThatIsNotifiedGivesZero) {
  for (const bool on : {false, true, true, false, false}) {
    EXPECT_TRUE(SetEnabled(on));
    EXPECT_EQ(NotifyVexarelayd(), 0) << on;
  }
  EXPECT_EQ(Count("VLIBServiceStop"), 1u);
}

TEST(Md5, DigestIsLowercaseHexAndTheRestZero) {
  std::string buffer(70, 'x');
  EXPECT_EQ(GetMd5String("message digest", buffer.data(), 64), 0);
  EXPECT_EQ(buffer, "f96b697d7cb7938d525a2f31aaf161d0" + std::string(32, '\0') + "xxxxxx");
}

TEST_F(UtilsTest, Md5RefusesWhatItCannotUse) {
  std::string buffer(64, 'x');
  EXPECT_EQ(GetMd5String(nullptr, buffer.data(), 1), -1);
  EXPECT_EQ(GetMd5String("a", buffer.data(), 63), -1);
  EXPECT_EQ(Logs(), (Names{"utils:215 Invalid input.", "utils:220 Invalid output size"}));
  EXPECT_EQ(buffer, std::string(64, 'x'));
}

TEST_F(UtilsTest, AFailedReadEmptiesTheDocument) {
  Json::Value document("before");
  EXPECT_FALSE(ReadJsonFile("/usr/vexa/missing", document));
  EXPECT_TRUE(document.isNull());
  EXPECT_EQ(Logs(), Names());
}

}  // namespace
}  // namespace desk
