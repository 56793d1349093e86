// What the methods do when all goes well, what they ask of the device and in which order.

#include <json/writer.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

using Names = std::vector<std::string>;

class MethodTest : public DeskTest {
 protected:
  MethodTest() { Write(kConf, kReadyConf); }

  void SetSwitch(const std::string& value) { Write(kSettings, "runrelayd=\"" + value + "\"\n"); }
  void SetDaemon(bool enabled, bool running) {
    Json::Value states = ReadJson("desk/services.json");
    states["vexarelayd"]["enabled"] = enabled;
    states["vexarelayd"]["running"] = running;
    StoreJson(Path("desk/services.json"), states);
  }
  void SetStartTime(int milliseconds) {
    Json::Value states = ReadJson("desk/services.json");
    states["vexarelayd"]["start_ms"] = milliseconds;
    StoreJson(Path("desk/services.json"), states);
  }
};

TEST_F(MethodTest, EveryMethodAsksInItsOrder) {
  StartControlServer();
  for (const auto& row : ReadTable("orders.txt")) {
    SCOPED_TRACE(row[0] + " " + row[1]);
    device->faults.Clear();
    Write(kConf, kReadyConf);
    Arrange(row[2]);
    CallMethod(row[0], Params(row[1]));
    std::string operations;
    for (const std::string& operation : Operations()) operations += (operations.empty() ? "" : " ") + operation;
    EXPECT_EQ(operations, row[3]);
  }
}

TEST_F(MethodTest, StatusGivesDaemonAndAliasStatus) {
  Write("usr/vexa/etc/vexarelayd/alias_status.json", R"({"mybox": {"status": "registered", "detail": ""}})");
  EXPECT_EQ(CallMethod("1/status").data, ParseJson(R"({"status": "not_running", "alias_status": "registered"})"));
}

TEST_F(MethodTest, StatusIsUnknownWhereNothingIsKnown) {
  device->faults.Add("AliasStatus::GetStatus=false");
  device->faults.Add("Daemon::GetStatus=true");
  EXPECT_EQ(CallMethod("1/status").data, ParseJson(R"({"status": "unknown", "alias_status": "unknown"})"));
}

TEST_F(MethodTest, GetGivesTheSettings) {
  SetSwitch("YeS");
  const Json::Value settings = ParseJson(R"({"server_id": "7", "server_alias": "mybox",
      "kova_account": "owner@vexa.example", "domain": "relay.vexa.example", "region": "eu", "enabled": true})");
  EXPECT_EQ(CallMethod("1/get").data, settings);
  EXPECT_EQ(CallMethod("2/get").data, settings);
  EXPECT_EQ(ToLine(Find("VLIBCExecl")["args"]), R"(["/usr/vexa/bin/vexakova",65,"--query_account"])");
  EXPECT_EQ(Read("desk/vexakova.log"), "vexakova --query_account\n");
}

struct AccountCase {
  const char* account;
  const char* error_state;
  const char* expected;
  unsigned queries;
};

TEST_F(MethodTest, GetVersion2TakesTheAccountFromTheRecordOrTheService) {
  const AccountCase cases[] = {
      {R"({"name": "a@b.cd", "email": "e@f.gh"})", "", "a@b.cd", 0},
      {R"({"name": "", "email": "e@f.gh"})", "", "e@f.gh", 1},
      {R"({"email": "e@f.gh"})", "err_other", "e@f.gh", 1},
      {R"({"email": "e@f.gh"})", "err_network", "", 0},
      {R"({"email": "e@f.gh"})", "err_resolv", "", 0},
      {R"({})", "", "", 1},
      {nullptr, "", "", 0},
  };
  StartControlServer();
  for (const AccountCase& row : cases) {
    SCOPED_TRACE(testing::Message() << (row.account ? row.account : "no account") << ' ' << row.error_state);
    std::filesystem::remove(Path(kAccount));
    if (row.account != nullptr) Write(kAccount, row.account);
    device->faults.Clear();
    device->faults.Add(std::string(R"(Daemon::GetStatus={"error":")") + row.error_state + "\"}");
    EXPECT_EQ(CallMethod("2/get").data["kova_account"], row.expected);
    EXPECT_EQ(Count("VEXAKOVAAccountQueryInfo"), row.queries);
    EXPECT_EQ(Count("VLIBCExecl"), 1u);
  }
}

TEST_F(MethodTest, GetVersion2RunsTheAccountToolUnlessTheServiceIsUnreachable) {
  Write(kAccount, "{}");
  EXPECT_EQ(CallMethod("2/get").code, 2902);
  EXPECT_EQ(Count("VLIBCExecl"), 0u);
  for (const char* fault : {"Daemon::GetStatus=false", "VEXAKOVAErrGet=5"}) {
    device->faults.Clear();
    device->faults.Add(fault);
    EXPECT_EQ(CallMethod("2/get").code, 2900) << fault;
    EXPECT_EQ(Count("VLIBCExecl"), 1u) << fault;
  }
}

TEST_F(MethodTest, SetWritesTheSwitchAndNotifies) {
  EXPECT_TRUE(CallMethod("1/set", R"({"enabled": true})").success);
  EXPECT_NE(Read(kSettings).find("runrelayd=\"yes\"\n"), std::string::npos);
  EXPECT_TRUE(CallMethod("1/get").data["enabled"].asBool());
  const Answer answer = CallMethod("2/set", R"({"enabled": false})");
  EXPECT_EQ(answer.data, Json::Value());
  EXPECT_FALSE(CallMethod("2/get").data["enabled"].asBool());
}

TEST_F(MethodTest, OnlyVersion1NeedsAnAccountToSwitchOn) {
  Write(kConf, R"({"server_alias": {"name": "mybox"}})");
  EXPECT_EQ(CallMethod("1/set", R"({"enabled": true})").code, 2900);
  EXPECT_TRUE(CallMethod("2/set", R"({"enabled": true})").success);
  Write(kConf, R"({"server_alias": {"name": ""}, "server_kova": {"account": "a@b.cd"}})");
  EXPECT_EQ(CallMethod("1/set", R"({"enabled": true})").code, 2901);
  EXPECT_EQ(Count("KovaConf::GetKovaAccount"), 0u);
}

struct NotifyCase {
  const char* name;
  const char* switch_value;
  bool enabled;
  int start_ms;
  Names services;
  unsigned queries;
};

TEST_F(MethodTest, NotificationFollowsTheSwitch) {
  const NotifyCase cases[] = {
      {"on, enabled", "yes", true, 0, {"VLIBServiceIsEnabled", "VLIBServiceReload"}, 0},
      {"on, up at once", "yes", false, 0, {"VLIBServiceIsEnabled", "VLIBServiceStart"}, 1},
      {"on, up after a second", "yes", false, 1000, {"VLIBServiceIsEnabled", "VLIBServiceStart"}, 3},
      {"on, never up", "yes", false, 60000, {"VLIBServiceIsEnabled", "VLIBServiceStart"}, 11},
      {"off, enabled", "no", true, 0, {"VLIBServiceIsEnabled", "VLIBServiceStop"}, 0},
      {"off, not enabled", "", false, 0, {"VLIBServiceIsEnabled"}, 0},
  };
  for (const NotifyCase& row : cases) {
    SCOPED_TRACE(row.name);
    SetSwitch(row.switch_value);
    SetDaemon(row.enabled, row.enabled);
    SetStartTime(row.start_ms);
    EXPECT_TRUE(CallMethod("Upnp/1/set", R"({"enabled": true})").success);
    Names services;
    for (const std::string& operation : Operations()) {
      if (operation.rfind("VLIBService", 0) == 0) services.push_back(operation);
    }
    ASSERT_GE(services.size(), 2u);
    EXPECT_EQ(Names(services.begin() + 2, services.end()), row.services);
    EXPECT_EQ(Count("Daemon::GetStatus(Json)"), row.queries);
    EXPECT_EQ(Count("usleep"), row.queries == 0 ? 0u : row.queries - 1);
    EXPECT_TRUE(row.queries <= 1 || Find("usleep")["args"][0].asInt() == 500000);
  }
}

TEST_F(MethodTest, RemoteAccessIsReloadedOnlyWhenItRuns) {
  device->faults.Add("VLIBServiceIsRunning=0");
  EXPECT_TRUE(CallMethod("1/set", R"({"enabled": false})").success);
  EXPECT_EQ(Count("VLIBServiceReload"), 0u);
}

TEST_F(MethodTest, PermissionsAreStoredAsSentAndGivenBack) {
  const char* lists[] = {R"([])", R"([{"id": "", "enabled": false, "more": [1, {"x": null}]}])",
                         R"([{"id": "a", "enabled": true}, {"id": "a", "enabled": false}])"};
  for (const char* list : lists) {
    EXPECT_TRUE(CallMethod("Permission/1/set", std::string(R"({"services": )") + list + "}").success);
    EXPECT_EQ(Read(kServices), Json::StyledWriter().write(ParseJson(list)));
    EXPECT_EQ(CallMethod("Permission/1/get", "{}", false).data["services"], ParseJson(list));
  }
  Write(kServices, R"({"no": "array"})");
  EXPECT_EQ(CallMethod("Permission/1/get").data, ParseJson(R"({"services": {"no": "array"}})"));
}

TEST_F(MethodTest, UpnpTakesTheParametersAsAWhole) {
  const std::string params = R"({"enabled": false, "lease_seconds": 60, "unknown": 1})";
  EXPECT_TRUE(CallMethod("Upnp/1/set", params).success);
  EXPECT_EQ(Find("UpnpConf::UpnpConf")["args"][0], "/usr/vexa/etc/vexarelayd/upnp.conf");
  EXPECT_EQ(Find("UpnpConf::Overwrite")["args"][0], ParseJson(params));
  EXPECT_EQ(CallMethod("Upnp/1/get").data, ParseJson(R"({"enabled": false, "lease_seconds": 60})"));
  EXPECT_EQ(Find("UpnpConf::Write")["args"], ParseJson("[true]"));
}

constexpr const char* kChanging[] = {"1/set", "1/set_server_alias", "Permission/1/set", "Upnp/1/set",
                                     "2/set", "2/set_server_alias"};

TEST_F(MethodTest, AnOrdinaryUserChangesNothing) {
  const auto before = Snapshot();
  for (const char* method : kChanging) {
    for (const char* params : {"{}", R"({"enabled": true, "services": [], "server_alias": "a"})", kAliasV1}) {
      const Answer answer = CallMethod(method, params, false);
      EXPECT_EQ(answer.code, 105) << method;
      EXPECT_EQ(answer.data, Json::Value());
      EXPECT_EQ(Logs(), Names());
      EXPECT_EQ(Count("APIRequest::IsAdmin"), 2u);
      EXPECT_EQ(Count("APIRequest::HasParam") + Count("APIRequest::GetParam"), 0u);
      for (const std::string& operation : Operations()) {
        const size_t colon = operation.find("::");
        EXPECT_EQ(operation.substr(0, colon), operation.substr(colon + 2)) << "asked, not only made";
      }
    }
  }
  EXPECT_EQ(Snapshot(), before);
}

TEST_F(MethodTest, ACallerWhoLosesTheRightIsRefusedInTheEnd) {
  for (const char* method : kChanging) {
    device->faults.Clear();
    device->faults.Add("APIRequest::IsAdmin=false@2");
    EXPECT_EQ(CallMethod(method).code, 105) << method;
    EXPECT_EQ(Count("APIRequest::HasParam"), 1u);
  }
}

TEST_F(MethodTest, AnOrdinaryUserReadsWhatAnAdministratorReads) {
  for (const char* method : {"1/status", "1/get", "2/get", "Permission/1/get", "Upnp/1/get"}) {
    const Answer answer = CallMethod(method, "{}", false);
    EXPECT_TRUE(answer.success) << method;
    EXPECT_EQ(Count("APIRequest::IsAdmin"), 0u);
    EXPECT_EQ(answer.data, CallMethod(method).data);
  }
}

TEST_F(MethodTest, AWrongTypeLeavesTheHandlerAndNothingChanges) {
  const struct {
    const char* method;
    const char* params;
  } cases[] = {
      {"1/set", R"({"enabled": "true"})"},
      {"2/set", R"({"enabled": {}})"},
      {"1/set_server_alias", R"({"server_alias": [], "kova_account": "a@b.cd", "kova_password": "123456"})"},
      {"1/set_server_alias",
       R"({"server_alias": "a", "kova_account": "a@b.cd", "kova_password": "123456", "force": "yes"})"},
      {"2/set_server_alias", R"({"server_alias": "a", "force": []})"},
  };
  const auto before = Snapshot();
  for (const auto& row : cases) {
    const Outcome outcome = TryMethod(row.method, ParseJson(row.params));
    EXPECT_TRUE(outcome.thrown) << row.params;
    EXPECT_TRUE(outcome.answers.empty()) << row.params;
  }
  EXPECT_EQ(Snapshot(), before);
}

TEST_F(MethodTest, AnUnreadableFileIsNotMovedAside) {
  std::filesystem::remove(Path(kConf));
  std::filesystem::create_directory(Path(kConf));
  EXPECT_TRUE(TryMethod("1/status", Json::objectValue).thrown);
  std::filesystem::remove(Path(kConf));
  Write(kConf, std::string(1500, '['));
  EXPECT_TRUE(TryMethod("1/status", Json::objectValue).thrown);
  EXPECT_TRUE(Exists(kConf));
  EXPECT_FALSE(Exists(std::string(kConf) + ".bad"));
}

}  // namespace
}  // namespace desk
