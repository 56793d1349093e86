// What the methods leave on the device, and who may call them.

#include <json/writer.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

class MethodTest : public DeskTest {
 protected:
  MethodTest() { Write(kConf, kReadyConf); }
};

TEST_F(MethodTest, BothVersionsOfSetWriteTheSwitch) {
  for (const char* version : {"1", "2"}) {
    EXPECT_EQ(CallMethod(version + std::string("/set"), Params("on")).data, Json::Value());
    EXPECT_TRUE(CallMethod(version + std::string("/get")).data["enabled"].asBool());
    EXPECT_TRUE(CallMethod(version + std::string("/set"), Params("off")).success);
    EXPECT_FALSE(CallMethod(version + std::string("/get")).data["enabled"].asBool());
  }
}

TEST_F(MethodTest, PermissionsAreStoredAsSentAndGivenBack) {
  const char* lists[] = {R"([])", R"([{"id": "", "enabled": false, "more": [1, {"x": null}]}])",
                         R"([{"id": "a", "enabled": true}, {"id": "a", "enabled": false}])"};
  for (const char* list : lists) {
    EXPECT_TRUE(CallMethod("Permission/1/set", std::string(R"({"services": )") + list + "}").success);
    EXPECT_EQ(Read(kServices), Json::StyledWriter().write(ParseJson(list)));
    EXPECT_EQ(CallMethod("Permission/1/get").data["services"], ParseJson(list));
  }
}

/// jsoncpp does not store what was left out of an array that was filled by index; no text of JSON makes one.
TEST_F(MethodTest, APermissionListWithGapsIsRefused) {
  Json::Value params;
  params["services"][1] = ParseJson(R"({"id": "a", "enabled": true})");
  const std::string before = Read(kServices);
  EXPECT_EQ(TryMethod("Permission/1/set", params).answers.at(0).code, 2901);
  EXPECT_EQ(Logs(), std::vector<std::string>{"tunnelbridge.permission.v1:47 Invalid entry"});
  EXPECT_EQ(Read(kServices), before);
}

TEST_F(MethodTest, UpnpSettingsAreStoredAndGivenBack) {
  EXPECT_TRUE(CallMethod("Upnp/1/set", R"({"enabled": false, "lease_seconds": 60, "unknown": 1})").success);
  EXPECT_EQ(CallMethod("Upnp/1/get").data, ParseJson(R"({"enabled": false, "lease_seconds": 60})"));
}

TEST_F(MethodTest, AnOrdinaryUserChangesNothing) {
  const auto before = Snapshot();
  for (const char* method :
       {"1/set", "1/set_server_alias", "Permission/1/set", "Upnp/1/set", "2/set", "2/set_server_alias"}) {
    for (const char* params : {"{}", R"({"enabled": true, "services": [], "server_alias": "a"})", kAliasV1}) {
      const Answer answer = CallMethod(method, params, false);
      EXPECT_EQ(answer.code, 105) << method;
      EXPECT_EQ(answer.data, Json::Value());
      EXPECT_EQ(Logs(), std::vector<std::string>());
    }
  }
  EXPECT_EQ(Snapshot(), before);
}

}  // namespace
}  // namespace desk
