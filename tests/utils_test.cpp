// Functions of the module that no method shows whole.

#include "utils.h"

#include "error_codes.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

using VEXA::Relay::ALIAS_RET;
using VEXA::Relay::RELAYD_RET;

using UtilsTest = DeskTest;

TEST(ErrorCodes, EveryResultHasItsCode) {
  // Index: the result; 16 and 15 are the first that the library does not have.
  const int relay[] = {2907, 2900, 2900, 2900, 2900, 2905, 2902, 2902, 2905,
                       2900, 2903, 2900, 2903, 2903, 2903, 2900, 2900};
  const int alias[] = {2900, 2907, 2900, 2904, 2903, 2901, 2902, 2902, 2905, 2903, 2903, 2900, 2906, 2900, 2900, 2900};
  for (size_t result = 0; result < std::size(relay); ++result) {
    EXPECT_EQ(MapRelayErrorCode(static_cast<RELAYD_RET>(result)), relay[result]) << result;
  }
  for (size_t result = 0; result < std::size(alias); ++result) {
    EXPECT_EQ(MapAliasErrorCode(static_cast<ALIAS_RET>(result)), alias[result]) << result;
  }
  for (const int result : {-1, 255, 256}) {
    EXPECT_EQ(MapRelayErrorCode(static_cast<RELAYD_RET>(result)), 2900);
    EXPECT_EQ(MapAliasErrorCode(static_cast<ALIAS_RET>(result)), 2900);
  }
}

TEST(ErrorCodes, RowsStandInTheirOrder) {
  const int relay[] = {0, 8, 5, 6, 7, 10, 12, 13, 14, 9, 15, 11, 1, 2, 3, 4, 255};
  const int alias[] = {1, 5, 6, 7, 3, 12, 8, 4, 9, 10, 2, 11, 14, 255};
  for (size_t row = 0; row < std::size(relay); ++row) EXPECT_EQ(grgRelayErrorCodeMap[row].result, relay[row]);
  for (size_t row = 0; row < std::size(alias); ++row) EXPECT_EQ(grgAliasErrorCodeMap[row].result, alias[row]);
}

TEST(Md5, DigestIsLowercaseHexAndTheRestZero) {
  const std::map<std::string, std::string> published = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
  };
  for (const auto& [text, digest] : published) {
    std::string buffer(70, 'x');
    EXPECT_EQ(GetMd5String(text.c_str(), buffer.data(), 64), 0);
    EXPECT_EQ(buffer, digest + std::string(32, '\0') + "xxxxxx");
  }
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
