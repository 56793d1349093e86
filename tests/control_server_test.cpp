// Registration of server and alias, over real HTTP to the control server on the loopback address.

#include <thread>

#include "devkit/control_server/loopback_server.h"
#include "devkit/relay/transfer.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

using Names = std::vector<std::string>;

constexpr char kAuth[] = "usr/vexa/etc/vexarelayd/auth.conf";
constexpr char kAliasStatus[] = "usr/vexa/etc/vexarelayd/alias_status.json";

class AliasTest : public DeskTest {
 protected:
  AliasTest() { StartControlServer(); }

  /// The daemon runs and knows its server id, so that no registration is needed.
  void RunDaemon() {
    ASSERT_TRUE(CallMethod("1/set_server_alias", kAliasV1).success);
    ASSERT_TRUE(CallMethod("1/set", R"({"enabled": true})").success);
    device->Sleep(std::chrono::seconds(60));
  }

  /// Bodies of the requests that the last call posted.
  std::vector<Json::Value> Posted() const {
    std::vector<Json::Value> bodies;
    for (const Json::Value& line : device->trace.Lines()) {
      if (line["op"] == "POST") bodies.push_back(line["args"][1]);
    }
    return bodies;
  }
};

TEST_F(AliasTest, Version1RegistersSiteServerAndAlias) {
  const Answer answer = CallMethod("1/set_server_alias", kAliasV1);
  EXPECT_TRUE(answer.success);
  EXPECT_EQ(answer.data, Json::Value());
  EXPECT_EQ(Logs(), Names());
  const Json::Value conf = ReadJson(kConf);
  EXPECT_EQ(conf["server_control"], ParseJson(R"({"host": "eu.control.vexa.example", "region": "eu"})"));
  EXPECT_EQ(conf["server_alias"]["name"], "mybox");
  EXPECT_EQ(conf["server_kova"]["account"], "owner@vexa.example");
  EXPECT_EQ(conf["server_id"], "100001");
  EXPECT_EQ(ReadJson(kAliasStatus)["mybox"]["status"], "registered");
  EXPECT_EQ(CallMethod("1/status").data["alias_status"], "registered");
}

TEST_F(AliasTest, Version1AsksInThisOrder) {
  CallMethod("1/set_server_alias", kAliasV1);
  const Names match = {"regcomp", "regexec", "regfree"};
  const Names exchange = {"POST", "Request::Send", "Request::GetResponse", "ParseServerError", "RespErrMap"};
  Names expected = match;
  const auto add = [&expected](const Names& names) { expected.insert(expected.end(), names.begin(), names.end()); };
  add(match);
  add({"RelaydConf::RelaydConf", "AliasRequest::AliasRequest", "AliasStatus::AliasStatus"});
  add({"ServerConf::GetUrl", "Request::Request", "ServerConf::GetUrl", "Request::Set"});
  add(exchange);
  add({"ServerConf::Overwrite", "RelaydConf::WriteControlServerHost", "RelaydConf::WriteServerId"});
  add({"Daemon::GetStatus", "ServerConf::GetUrl", "Request::Request", "AuthConf::ReadConf", "AuthConf::Write"});
  add({"ServerConf::GetUrl", "Request::Set"});
  add(exchange);
  add({"RelaydConf::WriteServerId", "MD5_Init", "MD5_Update", "MD5_Final", "KovaConf::SetKovaAccount"});
  add({"AliasConf::SetAliasName", "RelaydConf::DumpDataForAliasReq", "AliasRequest::SetRequest", "POST"});
  add({"AliasRequest::Send", "AliasRequest::ResponseToString", "RelaydConf::WriteAliasName"});
  add({"RelaydConf::WriteKovaAccount", "AliasStatus::SetStatus", "VLIBServiceIsRunning", "VLIBServiceReload"});
  add({"VLIBCFileGetKeyValue", "VLIBServiceIsEnabled"});
  EXPECT_EQ(Operations(), expected);
  EXPECT_EQ(Find("regcomp")["args"], ParseJson(R"(["^[a-zA-Z][a-zA-Z0-9\\-]*$", 5])"));
}

TEST_F(AliasTest, Version2AsksInThisOrder) {
  RunDaemon();
  EXPECT_TRUE(CallMethod("2/set_server_alias", kAliasV2).success);
  EXPECT_EQ(Operations(), (Names{"regcomp",
                                 "regexec",
                                 "regfree",
                                 "RelaydConf::RelaydConf",
                                 "AliasRequest::AliasRequest",
                                 "AliasStatus::AliasStatus",
                                 "VEXAKOVAAccountGet",
                                 "Daemon::GetStatus",
                                 "AliasConf::SetAliasName",
                                 "RelaydConf::DumpDataForAliasReq",
                                 "AliasRequest::SetRequest",
                                 "POST",
                                 "AliasRequest::Send",
                                 "AliasRequest::ResponseToString",
                                 "RelaydConf::WriteAliasName",
                                 "AliasStatus::SetStatus",
                                 "VLIBServiceIsRunning",
                                 "VLIBServiceReload",
                                 "VLIBCFileGetKeyValue",
                                 "VLIBServiceIsEnabled",
                                 "VLIBServiceReload"}));
}

TEST_F(AliasTest, RequestsCarryTheseMembers) {
  const std::string device_name = ReadJson(kAuth)["device"].asString();
  const auto expect = [&](const Json::Value& body, const std::string& text) {
    Json::Value expected = ParseJson(text);
    if (body.isMember("auth")) {
      expected["auth"]["device"] = device_name;
      expected["auth"]["api_key"] = "(hidden)";
    }
    EXPECT_EQ(ToLine(body), ToLine(expected));
  };
  CallMethod("1/set_server_alias", kAliasV1);
  ASSERT_EQ(Posted().size(), 3u);
  expect(Posted()[0], R"({"version": 1, "command": "get_register_site"})");
  expect(Posted()[1], R"({"version": 1, "command": "register"})");
  expect(Find("AliasRequest::SetRequest")["args"][1],
         R"json({"version": 1, "server_id": "100001", "server_alias": "mybox",
      "kova_account": "owner@vexa.example", "kova_password": "(hidden)", "force": "false"})json");
  CallMethod("2/set_server_alias", R"({"server_alias": "mybox", "force": true})");
  ASSERT_EQ(Posted().size(), 2u) << "a control server of its own: no register site";
  expect(Find("AliasRequest::SetRequest")["args"][1],
         R"json({"version": 1, "server_id": "100001", "server_alias": "mybox",
      "kova_id": "kova-1001", "auth_key": "(hidden)", "force": "true"})json");
  EXPECT_EQ(Find("AliasRequest::SetRequest")["args"][0], 1);
  EXPECT_EQ(Find("RelaydConf::WriteAliasName")["args"], ParseJson(R"(["", "mybox"])"));
  EXPECT_EQ(Find("AliasStatus::SetStatus")["args"], ParseJson(R"(["mybox", "registered", "", true])"));
}

TEST_F(AliasTest, ThePasswordIsSentAsItsDigestAndNeverStored) {
  device->faults.Add("AliasRequest::SetRequest=false");
  EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2900);
  const std::string log = Logs().at(0);
  EXPECT_EQ(log.rfind("tunnelbridge.v1:67 Alias set error: {\n", 0), 0u) << log;
  EXPECT_NE(log.find("\"kova_password\" : \"(hidden)\""), std::string::npos) << log;

  device->faults.Clear();
  EXPECT_TRUE(CallMethod("1/set_server_alias", kAliasV1).success) << "the control server compared the digest";
  std::string everything;
  for (const Json::Value& line : device->trace.Lines()) everything += ToLine(line);
  for (const auto& [file, text] : Snapshot()) everything += text;
  EXPECT_EQ(everything.find("owner-password"), std::string::npos);
  EXPECT_EQ(everything.find(kPasswordDigest), std::string::npos);

  device->faults.Add("AliasRequest::SetRequest=false");
  EXPECT_EQ(CallMethod("2/set_server_alias", kAliasV2).code, 2900);
  EXPECT_EQ(Logs().at(0).rfind("tunnelbridge.v2:68 Alias set error: {\n", 0), 0u) << Logs().at(0);
}

TEST_F(AliasTest, ARunningDaemonWithAServerIdIsNotRegisteredAgain) {
  RunDaemon();
  for (const char* state : {R"({"status":"not_running"})", R"({"server_id":""})", R"({"status":"connected"})"}) {
    device->faults.Clear();
    device->faults.Add(std::string("Daemon::GetStatus=") + state);
    EXPECT_TRUE(CallMethod("2/set_server_alias", kAliasV2).success);
    EXPECT_EQ(Count("AuthConf::ReadConf"), std::string(state).find("connected") == std::string::npos ? 1u : 0u)
        << state;
  }
}

TEST_F(AliasTest, FormsOfAliasAndAccount) {
  const std::map<std::string, bool> aliases = {{"a", true},     {"Z9-", true},   {"a\\b", true}, {"a-b-c", true},
                                               {"1\nok", true}, {"", false},     {"1a", false},  {"-a", false},
                                               {"a_b", false},  {"a b", false},  {"ä", false},   {"a.b", false},
                                               {"a\n", true},   {"ok\n1", true}, {"1\n2", false}};
  const std::map<std::string, bool> accounts = {
      {"a@b.cd", true},         {"a.b.c@d-e.f.gh", true}, {"x\n a@b.cd", false}, {"x\na@b.cd", true},
      {"a@b.c", false},         {"a@b", false},           {"a..b@c.de", false},  {"a@-b.cd", false},
      {"a@b-.cd", false},       {"@b.cd", false},         {"a@b.cd.", false},    {".a@b.cd", false},
      {"a`{|}~\\!@b.cd", true}, {"a@b.c1", false},        {"a b@c.de", false},   {"#$%&'*+/=?^_-@b.cd", true},
      {"a@b\\c.de", true},      {"a@1.cd", true},         {"a@b..cd", false}};
  Json::Value params = ParseJson(R"({"kova_password": "123456"})");
  device->faults.Add(R"(AliasRequest::Send={"alias_result":1})");
  for (const auto& [alias, valid] : aliases) {
    params["server_alias"] = alias;
    params["kova_account"] = "a@b.cd";
    EXPECT_EQ(TryMethod("1/set_server_alias", params).answers.at(0).code, valid ? 0 : 2901) << alias;
    EXPECT_EQ(TryMethod("2/set_server_alias", params).answers.at(0).code, valid ? 0 : 2901) << alias;
  }
  for (const auto& [account, valid] : accounts) {
    params["server_alias"] = "a";
    params["kova_account"] = account;
    EXPECT_EQ(TryMethod("1/set_server_alias", params).answers.at(0).code, valid ? 0 : 2901) << account;
  }
  params["kova_account"] = "a@b.cd";
  for (const size_t size : {5, 6, 128, 129}) {
    params["kova_password"] = std::string(size, 'p');
    EXPECT_EQ(TryMethod("1/set_server_alias", params).answers.at(0).code, size == 6 || size == 128 ? 0 : 2901) << size;
  }
  params["server_alias"] = std::string("a\0b", 3);
  EXPECT_EQ(TryMethod("2/set_server_alias", params).answers.at(0).code, 2901) << "a NUL byte matches nothing";
}

/// What the control server does, and what comes of it in version 1 on a new device.
struct Exchange {
  const char* name;
  const char* script;
  int code;
  Names logs;
};

const Exchange kExchanges[] = {
    {"site cut off",
     R"([{"command": "get_register_site", "cut": true}])",
     2902,
     {"utils:275 request send failed: 18, network failed", "tunnelbridge.v1:23 Get register site faield"}},
    {"site no JSON",
     R"([{"command": "get_register_site", "text": "no JSON"}])",
     2900,
     {"utils:284 can not get response: 0, bad answer", "tunnelbridge.v1:23 Get register site faield"}},
    {"site refused",
     R"([{"command": "get_register_site", "error": 110}])",
     2903,
     {"utils:292 reponse failed: 110, unknown device", "tunnelbridge.v1:23 Get register site faield"}},
    {"site without host",
     R"([{"command": "get_register_site", "answer": {}}])",
     2900,
     {"utils:303 cannot get a serverid", "tunnelbridge.v1:23 Get register site faield"}},
    {"site host no text",
     R"([{"command": "get_register_site", "answer": {"host": 7}}])",
     2900,
     {"utils:303 cannot get a serverid", "tunnelbridge.v1:23 Get register site faield"}},
    {"register cut off",
     R"([{"command": "register", "cut": true}])",
     2902,
     {"utils:336 request send failed: 18, network failed", "utils:373 reponse failed: 0, network failed",
      "tunnelbridge.v1:33 Register serverid faield"}},
    {"register unavailable",
     R"([{"command": "register", "status": 503}])",
     2905,
     {"utils:336 request send failed: 0, server busy", "utils:373 reponse failed: 0, server busy",
      "tunnelbridge.v1:33 Register serverid faield"}},
    {"register redirected",
     R"([{"command": "register", "status": 302, "location": "http://eu.control.vexa.example/"}])",
     2905,
     {"utils:336 request send failed: 0, server error", "utils:373 reponse failed: 0, server error",
      "tunnelbridge.v1:33 Register serverid faield"}},
    {"register no JSON",
     R"([{"command": "register", "text": "no JSON"}])",
     2900,
     {"utils:343 can not get response: 0, bad answer", "utils:373 reponse failed: 0, bad answer",
      "tunnelbridge.v1:33 Register serverid faield"}},
    {"register too large",
     R"([{"command": "register", "bytes": 1048577}])",
     2900,
     {"utils:336 request send failed: 23, bad answer", "utils:373 reponse failed: 0, bad answer",
      "tunnelbridge.v1:33 Register serverid faield"}},
    {"register no object",
     R"([{"command": "register", "answer": []}])",
     2900,
     {"utils:369 cannot get a serverid", "tunnelbridge.v1:33 Register serverid faield"}},
    {"register id no text",
     R"([{"command": "register", "answer": {"serverID": 7}}])",
     2900,
     {"utils:369 cannot get a serverid", "tunnelbridge.v1:33 Register serverid faield"}},
    {"register bad password",
     R"([{"command": "register", "error": 121}])",
     2903,
     {"utils:373 reponse failed: 121, bad password", "tunnelbridge.v1:33 Register serverid faield"}},
    {"register expired once", R"([{"command": "register", "error": 111}])", 0, {}},
    {"register expired, then cut off",
     R"([{"command": "register", "error": 111}, {"command": "register", "cut": true}])",
     2902,
     {"utils:336 request send failed: 18, network failed", "utils:373 reponse failed: 111, network failed",
      "tunnelbridge.v1:33 Register serverid faield"}},
    {"register expired twice",
     R"([{"command": "register", "error": 111, "times": 9}])",
     2900,
     {"utils:373 reponse failed: 111, api key expired", "tunnelbridge.v1:33 Register serverid faield"}},
    {"alias no JSON",
     R"([{"command": "set_alias", "text": "no JSON"}])",
     2900,
     {"tunnelbridge.v1:83 Alias request alias: mybox ret: 11 error: bad_answer"}},
    {"alias cut off",
     R"([{"command": "set_alias", "cut": true}])",
     2902,
     {"tunnelbridge.v1:83 Alias request alias: mybox ret: 7 error: network_failed"}},
    {"alias server error",
     R"([{"command": "set_alias", "error": 101}])",
     2905,
     {"tunnelbridge.v1:83 Alias request alias: mybox ret: 8 error: server_error"}},
    {"alias refused",
     R"([{"command": "set_alias", "error": 130}])",
     2901,
     {"tunnelbridge.v1:83 Alias request alias: mybox ret: 5 error: bad_alias"}},
    {"alias key expired",
     R"([{"command": "set_alias", "error": 111}])",
     2900,
     {"tunnelbridge.v1:83 Alias request alias: mybox ret: 14 error: api_key_expired"}},
};

TEST_F(AliasTest, EveryExchangeCanFail) {
  const std::string conf = Read(kConf);
  const std::string auth = Read(kAuth);
  for (const Exchange& exchange : kExchanges) {
    SCOPED_TRACE(exchange.name);
    Write(kConf, conf);
    Write(kAuth, auth);
    std::filesystem::remove(Path(kAliasStatus));
    std::filesystem::remove(Path("desk/control-server/state.json"));
    Script(exchange.script);
    const Answer answer = CallMethod("1/set_server_alias", kAliasV1);
    EXPECT_EQ(answer.code, exchange.code);
    EXPECT_EQ(Logs(), exchange.logs);
    if (!answer.success) {
      EXPECT_EQ(ReadJson(kConf)["server_alias"]["name"], "");
      EXPECT_EQ(ReadJson(kConf)["server_kova"]["account"], "");
      EXPECT_FALSE(Exists(kAliasStatus));
    }
    const bool expired = std::string(exchange.script).find("111") != std::string::npos;
    EXPECT_EQ(Count("AuthConf::GenerateApiKey"), expired ? 1u : 0u);
    EXPECT_EQ(Read(kAuth) != auth, expired);
  }
}

TEST_F(AliasTest, ARequestThatCannotBePutTogetherLeavesTheResultUnset) {
  const struct {
    const char* fault;
    Names logs;
  } cases[] = {
      {"AuthConf::Write=false",
       {"utils:323 get auth token failed", "utils:373 reponse failed: 0, unknown result",
        "tunnelbridge.v1:33 Register serverid faield"}},
      {"Request::Set=false@2",
       {"utils:329 set register command failed", "utils:373 reponse failed: 0, unknown result",
        "tunnelbridge.v1:33 Register serverid faield"}},
      {"Request::Set=false@1",
       {"utils:266 set register command failed", "tunnelbridge.v1:23 Get register site faield"}},
  };
  const std::string conf = Read(kConf);
  for (const auto& row : cases) {
    Write(kConf, conf);
    device->faults.Clear();
    device->faults.Add(row.fault);
    EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2900) << row.fault;
    EXPECT_EQ(Logs(), row.logs);
  }
}

TEST_F(AliasTest, WithoutAControlServerBothVersionsReportTheNetwork) {
  control_server.reset();
  EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2902);
  EXPECT_EQ(Logs(),
            (Names{"utils:275 request send failed: 7, network failed", "tunnelbridge.v1:23 Get register site faield"}));
  EXPECT_EQ(CallMethod("2/set_server_alias", kAliasV2).code, 2902);
  EXPECT_EQ(Logs().back(), "tunnelbridge.v2:49 Register serverid faield");
  EXPECT_EQ(Post("http://elsewhere.example/relay", "{}").result, 6) << "no host but the desk's resolves";
}

TEST_F(AliasTest, AnAnswerThatTakesTooLongIsCutShort) {
  device->total_limit = std::chrono::milliseconds(100);
  Script(R"([{"delay_ms": 1000}])");
  EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2902);
  EXPECT_EQ(Logs().front(), "utils:275 request send failed: 28, network failed");
}

TEST_F(AliasTest, AFailedNotificationLeavesAliasAccountAndStatusStored) {
  device->faults.Add("VLIBServiceIsEnabled=1");
  device->faults.Add("VLIBServiceStop=-1");
  EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2900);
  EXPECT_EQ(ReadJson(kConf)["server_alias"]["name"], "mybox");
  EXPECT_EQ(ReadJson(kConf)["server_kova"]["account"], "owner@vexa.example");
  EXPECT_EQ(ReadJson(kAliasStatus)["mybox"]["status"], "registered");
}

TEST_F(AliasTest, AnAliasBelongsToOneAccountOnOneDevice) {
  const std::string guest =
      R"({"server_alias": "mybox", "kova_account": "guest@vexa.example", "kova_password": "guest-password",
          "force": true})";
  EXPECT_TRUE(CallMethod("1/set_server_alias", kAliasV1).success);
  EXPECT_EQ(CallMethod("1/set_server_alias", guest).code, 2904);

  Json::Value other = ReadJson(kAuth);
  other["device"] = "desk-other";
  StoreJson(Path(kAuth), other);
  EXPECT_EQ(CallMethod("2/set_server_alias", kAliasV2).code, 2906);
  EXPECT_TRUE(CallMethod("2/set_server_alias", R"({"server_alias": "mybox", "force": true})").success);
  EXPECT_EQ(ServerState()["aliases"]["mybox"]["device"], "desk-other");
}

TEST_F(AliasTest, TheControlServerRefusesWhatItCannotTrust) {
  EXPECT_TRUE(CallMethod("1/set_server_alias", kAliasV1).success);
  const std::string auth = Read(kAuth);
  EXPECT_EQ(CallMethod("1/set_server_alias", R"({"server_alias": "mybox", "kova_account": "owner@vexa.example",
      "kova_password": "wrong-password"})")
                .code,
            2903);
  Write(kAccount, R"({"id": "kova-1001", "auth_key": "wrong"})");
  EXPECT_EQ(CallMethod("2/set_server_alias", kAliasV2).code, 2903);
  Write(kAuth, R"({"device": ")" + ReadJson(kAuth)["device"].asString() + R"(", "api_key": "forged"})");
  EXPECT_EQ(CallMethod("1/set_server_alias", kAliasV1).code, 2903);

  Write(kAuth, auth);
  Json::Value state = ServerState();
  state["expired_keys"].append(ReadJson(kAuth)["api_key"]);
  StoreJson(Path("desk/control-server/state.json"), state);
  EXPECT_TRUE(CallMethod("1/set_server_alias", kAliasV1).success) << "registered again with a new key";
  EXPECT_EQ(Count("AuthConf::GenerateApiKey"), 1u);
}

}  // namespace
}  // namespace desk
