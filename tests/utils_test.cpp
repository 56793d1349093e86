// Functions of the module that no method shows whole.

#include "utils.h"

#include "error_codes.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

using VEXA::Relay::ALIAS_RET;
using VEXA::Relay::RELAYD_RET;

using UtilsTest = DeskTest;

TEST(ErrorCodes, RowsStandInTheirOrderAndAreWhatIsLookedUp) {
  const ErrorCodeRow relay[] = {{0, 2907},  {8, 2905},  {5, 2905},  {6, 2902}, {7, 2902},  {10, 2903},
                                {12, 2903}, {13, 2903}, {14, 2903}, {9, 2900}, {15, 2900}, {11, 2900},
                                {1, 2900},  {2, 2900},  {3, 2900},  {4, 2900}, {255, 2900}};
  const ErrorCodeRow alias[] = {{1, 2907}, {5, 2901}, {6, 2902},  {7, 2902}, {3, 2904},  {12, 2906}, {8, 2905},
                                {4, 2903}, {9, 2903}, {10, 2903}, {2, 2900}, {11, 2900}, {14, 2900}, {255, 2900}};
  for (size_t row = 0; row < std::size(relay); ++row) {
    EXPECT_EQ(grgRelayErrorCodeMap[row].result, relay[row].result) << row;
    EXPECT_EQ(MapRelayErrorCode(static_cast<RELAYD_RET>(relay[row].result)), relay[row].code) << row;
  }
  for (size_t row = 0; row < std::size(alias); ++row) {
    EXPECT_EQ(grgAliasErrorCodeMap[row].result, alias[row].result) << row;
    EXPECT_EQ(MapAliasErrorCode(static_cast<ALIAS_RET>(alias[row].result)), alias[row].code) << row;
  }
  for (const int unlisted : {-1, 16, 256}) EXPECT_EQ(MapRelayErrorCode(static_cast<RELAYD_RET>(unlisted)), 2900);
  for (const int unlisted : {-1, 0, 13, 15, 256}) EXPECT_EQ(MapAliasErrorCode(static_cast<ALIAS_RET>(unlisted)), 2900);
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
