// Every way in which a method fails: its code, its log lines and what is left on the device.

#include <iterator>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

constexpr int kOk = 0;
constexpr char kOn[] = R"({"enabled": true})";
constexpr char kOff[] = R"({"enabled": false})";
constexpr char kList[] = R"({"services": [{"id": "web", "enabled": true}]})";

/// The device's files after the call.
enum Files { kSame, kChanged };

struct Failure {
  const char* method;
  const char* params;
  std::vector<const char*> faults;
  int code;
  std::vector<std::string> logs;
  Files files = kSame;
  /// Files to write before the call.
  std::map<const char*, const char*> setup = {};
};

// The switch is off: a notification has to stop an enabled daemon.
constexpr char kEnabled[] = "VLIBServiceIsEnabled=1";
constexpr char kStopFails[] = "VLIBServiceStop=-1";

const Failure kFailures[] = {
    {"1/status", "{}", {"fopen=ENOENT"}, 2900, {"tunnelbridge.v1:119 load config failed"}},
    {"1/status", "{}", {}, 2900, {"tunnelbridge.v1:125 load config failed"}, kSame, {{kConf, "{}"}}},
    {"1/status", "{}", {}, 2900, {"tunnelbridge.v1:125 load config failed"}, kSame, {{kConf, "[]"}}},
    {"1/status", "{}", {"AliasConf::Overwrite=false"}, 2900, {"tunnelbridge.v1:125 load config failed"}},
    {"1/status", "{}", {"AliasConf::Verify=false"}, 2900, {"tunnelbridge.v1:125 load config failed"}},
    {"1/status", "{}", {"Daemon::GetStatus=false"}, 2900, {"tunnelbridge.v1:132 load relayinfo failed"}},
    {"1/status", "{}", {R"(Daemon::GetStatus={"error":"err_resolv"})"}, 2902, {}},
    {"1/status", "{}", {R"(Daemon::GetStatus={"error":"err_network"})"}, 2902, {}},
    {"1/status", "{}", {R"(Daemon::GetStatus={"error":"Err_Network"})"}, kOk, {}},
    {"1/status", "{}", {"AliasStatus::GetStatus=false"}, kOk, {}},

    {"1/get", "{}", {"Daemon::GetStatus=false"}, 2900, {"tunnelbridge.v1:303 load relayinfo failed"}},
    {"1/get", "{}", {"fopen=EACCES"}, 2900, {"tunnelbridge.v1:313 load config failed"}},
    {"1/get", "{}", {"AliasConf::Overwrite=false"}, 2900, {"tunnelbridge.v1:320 load config failed"}},
    {"1/get", "{}", {"ServerConf::Verify=false"}, 2900, {"tunnelbridge.v1:320 load config failed"}},
    {"1/get", "{}", {"VLIBCFileGetKeyValue=0"}, kOk, {"debug utils:45 cannot get a run key"}},

    {"1/set", "{}", {}, 2901, {"tunnelbridge.v1:236 Invalid parameter"}},
    {"1/set", kOn, {"fopen=ENOENT"}, 2900, {"tunnelbridge.v1:246 load config failed"}},
    {"1/set", kOn, {"AliasConf::Verify=false"}, 2900, {"tunnelbridge.v1:253 load config failed"}},
    {"1/set", kOn, {"KovaConf::Overwrite=false"}, 2900, {"tunnelbridge.v1:253 load config failed"}},
    {"1/set",
     kOn,
     {R"(AliasConf::GetAliasName="")"},
     2901,
     {"tunnelbridge.v1:260 alias name and kova account does not set"}},
    {"1/set",
     kOn,
     {R"(KovaConf::GetKovaAccount="")"},
     2901,
     {"tunnelbridge.v1:260 alias name and kova account does not set"}},
    {"1/set",
     kOn,
     {"VLIBCINFOSetKeyValue=-1"},
     2900,
     {"utils:56 write vexainfo [runrelayd=yes] failed", "tunnelbridge.v1:268 Fail to set config"}},
    {"1/set",
     kOff,
     {"VLIBCINFOSetKeyValue=-1"},
     2900,
     {"utils:56 write vexainfo [runrelayd=no] failed", "tunnelbridge.v1:268 Fail to set config"}},
    {"1/set",
     kOn,
     {"VLIBServiceStart=1"},
     2900,
     {"utils:172 call VLIBServiceStart() vexarelayd error", "tunnelbridge.v1:274 Fail to set notify vexarelayd"},
     kChanged},
    {"1/set",
     kOff,
     {kEnabled, kStopFails},
     2900,
     {"utils:195 call VLIBServiceStop() vexarelayd error", "tunnelbridge.v1:274 Fail to set notify vexarelayd"}},

    {"2/get", "{}", {"Daemon::GetStatus=false"}, 2900, {"tunnelbridge.v2:231 load relayinfo failed"}},
    {"2/get", "{}", {"fopen=ENOENT"}, 2900, {"tunnelbridge.v2:241 load config failed"}},
    {"2/get", "{}", {"AliasConf::Overwrite=false"}, 2900, {"tunnelbridge.v2:248 load config failed"}},
    {"2/get", "{}", {"ServerConf::Overwrite=false"}, 2900, {"tunnelbridge.v2:248 load config failed"}},
    {"2/get", "{}", {"VEXAKOVAAccountGet=-1", "VEXAKOVAErrGet=3"}, kOk, {}},
    {"2/get",
     "{}",
     {"VEXAKOVAAccountGet=1", "VEXAKOVAErrGet=4@1", "VEXAKOVAErrGet=5@2"},
     2900,
     {"tunnelbridge.v2:258 VEXAKOVAAccountGet failed, code = 5"}},
    {"2/get",
     "{}",
     {},
     2902,
     {"tunnelbridge.v2:270 VEXAKOVAAccountQueryInfo failed, code = 4"},
     kSame,
     {{kAccount, R"({"email": "owner@vexa.example"})"}}},
    {"2/get",
     "{}",
     {"VEXAKOVAAccountQueryInfo=-1", "VEXAKOVAErrGet=5"},
     2900,
     {"tunnelbridge.v2:270 VEXAKOVAAccountQueryInfo failed, code = 5"},
     kSame,
     {{kAccount, "{}"}}},
    {"2/get", "{}", {R"(VEXAKOVAAccountQueryInfo={"result":0,"info":["email"]})"}, kOk, {}, kSame, {{kAccount, "{}"}}},
    {"2/get", "{}", {"VLIBCExecl=-1"}, kOk, {"tunnelbridge.v2:299 Failed to execute vexakova."}},

    {"2/set", "{}", {}, 2901, {"tunnelbridge.v2:163 Invalid parameter"}},
    {"2/set", kOn, {"fopen=ENOENT"}, 2900, {"tunnelbridge.v2:173 load config failed"}},
    {"2/set", kOn, {"AliasConf::Overwrite=false"}, 2900, {"tunnelbridge.v2:179 load config failed"}},
    {"2/set",
     kOn,
     {R"(AliasConf::GetAliasName="")"},
     2901,
     {"tunnelbridge.v2:185 alias name and kova account does not set"}},
    {"2/set",
     kOff,
     {"VLIBCINFOSetKeyValue=-1"},
     2900,
     {"utils:56 write vexainfo [runrelayd=no] failed", "tunnelbridge.v2:193 Fail to set config"}},
    {"2/set",
     kOn,
     {"VLIBServiceStart=-1"},
     2900,
     {"utils:172 call VLIBServiceStart() vexarelayd error", "tunnelbridge.v2:199 Fail to set notify vexarelayd"},
     kChanged},

    {"Permission/1/get", "{}", {"fopen=ENOENT"}, 2900, {"tunnelbridge.permission.v1:13 cannot read config"}},
    {"Permission/1/set", "{}", {}, 2901, {"tunnelbridge.permission.v1:31 Invalid parameter"}},
    {"Permission/1/set", R"({"services": {}})", {}, 2901, {"tunnelbridge.permission.v1:38 Invalid parameter"}},
    {"Permission/1/set", R"({"services": null})", {}, 2901, {"tunnelbridge.permission.v1:38 Invalid parameter"}},
    {"Permission/1/set",
     R"({"services": [{"id": "a", "enabled": true}, {"id": 1}, {"id": "c", "enabled": true}]})",
     {},
     2901,
     {"tunnelbridge.permission.v1:47 Invalid entry"}},
    {"Permission/1/set",
     R"({"services": [{"enabled": true}]})",
     {},
     2901,
     {"tunnelbridge.permission.v1:47 Invalid entry"}},
    {"Permission/1/set",
     R"({"services": [["id", "enabled"]]})",
     {},
     2901,
     {"tunnelbridge.permission.v1:47 Invalid entry"}},
    {"Permission/1/set",
     R"({"services": [{"id": 1, "enabled": true}]})",
     {},
     2901,
     {"tunnelbridge.permission.v1:55 Invalid type"}},
    {"Permission/1/set",
     R"({"services": [{"id": "a", "enabled": "true"}]})",
     {},
     2901,
     {"tunnelbridge.permission.v1:55 Invalid type"}},
    {"Permission/1/set",
     kList,
     {"fopen=EROFS"},
     2900,
     {"utils:112 open failed [/usr/vexa/etc/vexarelayd/services.conf]",
      "tunnelbridge.permission.v1:63 write file[/usr/vexa/etc/vexarelayd/services.conf] failed"}},
    {"Permission/1/set",
     kList,
     {kEnabled, kStopFails},
     2900,
     {"utils:195 call VLIBServiceStop() vexarelayd error",
      "tunnelbridge.permission.v1:70 Fail to set notify vexarelayd"},
     kChanged},

    {"Upnp/1/get", "{}", {}, 2900, {}, kSame, {{kUpnp, R"({"lease_seconds": 60})"}}},
    {"Upnp/1/get", "{}", {}, 2900, {"tunnelbridge.upnp.v1:12 Fail to get upnp config"}, kSame, {{kUpnp, "broken"}}},
    {"Upnp/1/get",
     "{}",
     {R"(UpnpConf::Write={"result":false})"},
     kOk,
     {"tunnelbridge.upnp.v1:12 Fail to get upnp config"}},
    {"Upnp/1/get", "{}", {R"(UpnpConf::Write={"settings":["enabled"]})"}, 2900, {}},
    {"Upnp/1/set", R"({"lease_seconds": 60})", {}, 2901, {}},
    {"Upnp/1/set", kOff, {"UpnpConf::WriteConfig=false"}, 2900, {"tunnelbridge.upnp.v1:47 Failed to write config"}},
    {"Upnp/1/set",
     kOff,
     {kEnabled, kStopFails},
     2900,
     {"utils:195 call VLIBServiceStop() vexarelayd error", "tunnelbridge.upnp.v1:54 Fail to set notify vexarelayd"},
     kChanged},

    {"1/set_server_alias",
     R"({"server_alias": "a", "kova_password": "123456"})",
     {},
     2901,
     {"tunnelbridge.v1:174 Invalid parameter"}},
    {"1/set_server_alias",
     R"({"kova_account": "a@b.cd", "kova_password": "123456"})",
     {},
     2901,
     {"tunnelbridge.v1:174 Invalid parameter"}},
    {"1/set_server_alias",
     R"({"server_alias": "a", "kova_account": "a@b.cd"})",
     {},
     2901,
     {"tunnelbridge.v1:174 Invalid parameter"}},
    {"1/set_server_alias",
     R"({"server_alias": "%s%n", "kova_account": "%d", "kova_password": ""})",
     {},
     2901,
     {"tunnelbridge.v1:187 alias format error: %s%n"}},
    {"1/set_server_alias",
     R"({"server_alias": "a", "kova_account": "%s%n", "kova_password": ""})",
     {},
     2901,
     {"tunnelbridge.v1:195 kova account format error: %s%n"}},
    {"1/set_server_alias",
     R"({"server_alias": "a", "kova_account": "a@b.cd", "kova_password": "pässe"})",
     {},
     2903,
     {"tunnelbridge.v1:83 Alias request alias: a ret: 4 error: unknown_account"},
     kChanged},
    {"1/set_server_alias",
     R"({"server_alias": "a", "kova_account": "a@b.cd", "kova_password": "12345"})",
     {},
     2901,
     {"tunnelbridge.v1:203 kova passowrd length is invaild: 5"}},
    {"1/set_server_alias", kAliasV1, {"regcomp=12@1"}, 2901, {"tunnelbridge.v1:187 alias format error: mybox"}},
    {"1/set_server_alias",
     kAliasV1,
     {"regcomp=12@2"},
     2901,
     {"tunnelbridge.v1:195 kova account format error: owner@vexa.example"}},
    {"1/set_server_alias",
     kAliasV1,
     {"MD5_Init=0"},
     2900,
     {"utils:230 MD5_Init failed", "tunnelbridge.v1:42 Encrypted error: owner@vexa.example"},
     kChanged},
    {"1/set_server_alias",
     kAliasV1,
     {"MD5_Update=0"},
     2900,
     {"utils:235 MD5_Update failed", "tunnelbridge.v1:42 Encrypted error: owner@vexa.example"},
     kChanged},
    {"1/set_server_alias",
     kAliasV1,
     {"MD5_Final=0"},
     2900,
     {"utils:240 MD5_Final failed", "tunnelbridge.v1:42 Encrypted error: owner@vexa.example"},
     kChanged},
    {"1/set_server_alias",
     kAliasV1,
     {"KovaConf::SetKovaAccount=false"},
     2900,
     {"tunnelbridge.v1:49 Kova Account set error: owner@vexa.example"},
     kChanged},
    {"1/set_server_alias",
     kAliasV1,
     {"AliasConf::SetAliasName=false"},
     2900,
     {"tunnelbridge.v1:56 Alias set error: mybox"},
     kChanged},
    {"1/set_server_alias",
     kAliasV1,
     {R"(AliasRequest::Send={"alias_result":12})"},
     2906,
     {"tunnelbridge.v1:83 Alias request alias: mybox ret: 12 error: alias_on_other_device"},
     kChanged},
    {"1/set_server_alias",
     kAliasV1,
     {kEnabled, kStopFails},
     2900,
     {"utils:195 call VLIBServiceStop() vexarelayd error", "tunnelbridge.v1:96 Fail to set notify vexarelayd"},
     kChanged},

    {"2/set_server_alias", "{}", {}, 2901, {"tunnelbridge.v2:120 Invalid parameter"}},
    {"2/set_server_alias", R"({"server_alias": "%s%n"})", {}, 2901, {"tunnelbridge.v2:131 alias format error: %s%n"}},
    {"2/set_server_alias", kAliasV2, {"regcomp=12"}, 2901, {"tunnelbridge.v2:131 alias format error: mybox"}},
    {"2/set_server_alias",
     kAliasV2,
     {"VEXAKOVAAccountGet=-1", "VEXAKOVAErrGet=4"},
     2902,
     {"tunnelbridge.v2:26 ERR_GET_KOVA_ACCOUNT_FAILED error code = 4"}},
    {"2/set_server_alias",
     kAliasV2,
     {"VEXAKOVAAccountGet=1", "VEXAKOVAErrGet=3"},
     2900,
     {"tunnelbridge.v2:26 ERR_GET_KOVA_ACCOUNT_FAILED error code = 3"}},
    {"2/set_server_alias",
     kAliasV2,
     {},
     2900,
     {"tunnelbridge.v2:40 invalid kova inforamtion, id:  authkey: (hidden)"},
     kSame,
     {{kAccount, R"({"auth_key": "abcdef"})"}}},
    {"2/set_server_alias",
     kAliasV2,
     {},
     2900,
     {"tunnelbridge.v2:40 invalid kova inforamtion, id: 17 authkey: "},
     kSame,
     {{kAccount, R"({"id": "17"})"}}},
    {"2/set_server_alias",
     kAliasV2,
     {"AliasConf::SetAliasName=false"},
     2900,
     {"tunnelbridge.v2:57 Alias set error: mybox"},
     kChanged},
    {"2/set_server_alias",
     kAliasV2,
     {R"(AliasRequest::Send={"alias_result":3})"},
     2904,
     {"tunnelbridge.v2:84 Alias request alias: mybox ret: 3 error: alias_taken"},
     kChanged},
    {"2/set_server_alias",
     kAliasV2,
     {kEnabled, kStopFails},
     2900,
     {"utils:195 call VLIBServiceStop() vexarelayd error", "tunnelbridge.v2:96 Fail to set notify vexarelayd"},
     kChanged},
};

class FailureTest : public DeskTest, public testing::WithParamInterface<size_t> {};

TEST_P(FailureTest, AnswersAndLogs) {
  const Failure& failure = kFailures[GetParam()];
  Write(kConf, kReadyConf);
  for (const auto& [file, text] : failure.setup) Write(file, text);
  if (failure.files == kChanged) StartControlServer();
  for (const char* fault : failure.faults) device->faults.Add(fault);
  const auto before = Snapshot();

  const Answer answer = CallMethod(failure.method, failure.params);

  EXPECT_EQ(answer.success, failure.code == kOk);
  EXPECT_EQ(answer.code, failure.code);
  EXPECT_TRUE(answer.success || answer.data.isNull());
  EXPECT_EQ(Logs(), failure.logs);
  EXPECT_EQ(device->faults.Unmet(), std::vector<std::string>());
  EXPECT_TRUE(failure.files == kChanged || Snapshot() == before);
}

INSTANTIATE_TEST_SUITE_P(Each, FailureTest, testing::Range(size_t{0}, std::size(kFailures)), [](const auto& row) {
  std::string name = std::string(kFailures[row.param].method) + "_" + std::to_string(row.param);
  for (char& letter : name) letter = letter == '/' ? '_' : letter;
  return name;
});

}  // namespace
}  // namespace desk
