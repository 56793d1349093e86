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
  const std::map<int, std::set<int>> relay = {{2907, {0}}, {2902, {6, 7}}, {2903, {10, 12, 13, 14}}, {2905, {5, 8}}};
  const std::map<int, std::set<int>> alias = {{2907, {1}}, {2901, {5}}, {2902, {6, 7}}, {2903, {4, 9, 10}},
                                              {2904, {3}}, {2905, {8}}, {2906, {12}}};
  const auto code_of = [](const std::map<int, std::set<int>>& codes, int result) {
    for (const auto& [code, results] : codes) {
      if (results.count(result) != 0) return code;
    }
    return 2900;
  };
  for (int result = -1; result <= 256; ++result) {
    EXPECT_EQ(MapRelayErrorCode(static_cast<RELAYD_RET>(result)), code_of(relay, result)) << result;
    EXPECT_EQ(MapAliasErrorCode(static_cast<ALIAS_RET>(result)), code_of(alias, result)) << result;
  }
}

TEST(Md5, DigestIsLowercaseHexAndTheRestZero) {
  std::string buffer(70, 'x');
  EXPECT_EQ(GetMd5String("message digest", buffer.data(), 64), 0);
  EXPECT_EQ(buffer, "f96b697d7cb7938d525a2f31aaf161d0" + std::string(32, '\0') + "xxxxxx");
}

TEST_F(UtilsTest, Md5RefusesWhatItCannotUse) {
  std::string buffer(64, 'x');
  EXPECT_EQ(GetMd5String(nullptr, buffer.data(), 1), -1);
  EXPECT_EQ(Logs(), std::vector<std::string>{"utils:215 Invalid input."});
  device->trace.Clear();
  EXPECT_EQ(GetMd5String("a", buffer.data(), 63), -1);
  EXPECT_EQ(Logs(), std::vector<std::string>{"utils:220 Invalid output size"});
  EXPECT_EQ(buffer, std::string(64, 'x'));
}

TEST_F(UtilsTest, AFailedReadEmptiesTheDocument) {
  Json::Value document("before");
  EXPECT_FALSE(ReadJsonFile("/usr/vexa/missing", document));
  EXPECT_TRUE(document.isNull());
  EXPECT_EQ(Logs(), std::vector<std::string>());
}

}  // namespace
}  // namespace desk
