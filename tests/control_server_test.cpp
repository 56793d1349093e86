// Registration of server and alias, over real HTTP to the control server on the loopback address.

#include <limits>

#include "devkit/relay/transfer.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

class AliasTest : public DeskTest {
 protected:
  AliasTest() { StartControlServer(); }
};

TEST_F(AliasTest, ARegistrationIsStoredAndThePasswordIsNot) {
  EXPECT_TRUE(CallMethod("1/set_server_alias", kAliasV1).success) << "the control server compared the digest";
  std::string everything;
  for (const Json::Value& line : device->trace.Lines()) everything += ToLine(line);
  for (const auto& [file, text] : Snapshot()) everything += text;
  EXPECT_EQ(everything.find("owner-password"), std::string::npos);
  EXPECT_EQ(everything.find(kPasswordDigest), std::string::npos);
  Json::Value registered = ParseJson(kReadyConf);
  registered["server_id"] = "100001";
  EXPECT_EQ(ReadJson(kConf), registered);
  EXPECT_EQ(CallMethod("1/status").data["alias_status"], "registered");
}

TEST_F(AliasTest, FormsOfAliasAndAccount) {
  device->faults.Add(R"(AliasRequest::Send={"alias_result":1})");
  for (const auto& row : ReadTable("forms.txt")) {
    for (const Json::Value& text : ParseJson(row[3])) {
      Json::Value params = ParseJson(R"({"server_alias": "a", "kova_account": "a@b.cd", "kova_password": "123456"})");
      params[row[1]] = text;
      const int code = row[2] == "yes" ? 0 : 2901;
      EXPECT_EQ(TryMethod("1/set_server_alias", params).answers.at(0).code, code) << text.asString();
      if (row[1] != "server_alias") continue;
      EXPECT_EQ(TryMethod("2/set_server_alias", params).answers.at(0).code, code) << text.asString();
    }
  }
}

TEST_F(AliasTest, AnAnswerThatTakesTooLongIsCutShort) {
  device->total_limit = std::chrono::milliseconds(100);
  Arrange(R"(script=[{"delay_ms": 1000}])");
  EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2902);
  EXPECT_EQ(Logs().front(), "utils:275 request send failed: 28, network failed");
}

TEST_F(AliasTest, TheControlServerKeepsItsRules) {
  for (const Row& row : ReadTable("rules.txt")) {
    SCOPED_TRACE(row[0]);
    const Json::Value before = ServerState();
    Json::Value request = ParseJson(row[4]);
    request["command"] = row[1];
    request["auth"] = Object({{"device", row[2]}, {"api_key", row[3]}});
    const std::string answer = Post("http://control.vexa.example/relay", ToLine(request)).answer;
    EXPECT_EQ(answer, ToLine(ParseJson(row[5])));
    EXPECT_TRUE(answer.find("error") == std::string::npos || ServerState() == before) << "refused, yet not forgotten";
  }
}

TEST_F(AliasTest, AScripted111LetsTheKeyExpire) {
  Arrange(R"(script=[{"command": "set_alias", "error": 111}])");
  EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2900);
  EXPECT_EQ(Logs(), Names{"tunnelbridge.v1:83 Alias request alias: mybox ret: 14 error: api_key_expired"});
  EXPECT_TRUE(CallMethod("1/set_server_alias", kAliasV1).success) << "registered again with a new key";
}

TEST_F(AliasTest, ServerIdsComeToAnEnd) {
  Json::Value state = ServerState();
  state["next_server_id"] = std::numeric_limits<int>::max();
  StoreJson(Path("desk/control-server/state.json"), state);
  const std::string last = R"({"command": "register", "auth": {"device": "last", "api_key": "1"}})";
  EXPECT_EQ(Post("http://register.vexa.example/relay", last).answer, R"({"error":{"code":101}})");
}

}  // namespace
}  // namespace desk
