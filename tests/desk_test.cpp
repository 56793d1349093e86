// The desk device itself: its folder, its faults, its trace, its settings file and services.

#include <curl/curl.h>
#include <platform/system.h>

#include <stdexcept>

#include "devkit/relay/transfer.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

TEST_F(DeskTest, FaultsAreMetByTheCallsTheyNameFromTheirAdditionToTheirRemoval) {
  std::vector<int> results = {VLIBServiceReload("support-remote-access")};
  const unsigned first = device->faults.Add("VLIBServiceReload=7@2");
  const unsigned second = device->faults.Add("VLIBServiceReload=9@4+");
  for (int call = 1; call <= 5; ++call) results.push_back(VLIBServiceReload("support-remote-access"));
  EXPECT_TRUE(device->faults.Remove(second));
  EXPECT_FALSE(device->faults.Remove(second));
  results.push_back(VLIBServiceReload("support-remote-access"));
  EXPECT_EQ(results, (std::vector<int>{0, 0, 7, 0, 9, 9, 0}));
  EXPECT_EQ(device->faults.List()[0]["id"], first);

  device->faults.Add("VLIBServiceStop=throw");
  device->faults.Add("VLIBServiceStart=1");
  EXPECT_THROW(VLIBServiceStop("vexarelayd", 0), std::runtime_error);
  EXPECT_EQ(device->faults.Unmet(), Names{"VLIBServiceStart=1"});
}

TEST_F(DeskTest, AFaultThatCannotBeIsRefused) {
  const std::map<std::string, std::string> cases = {
      {"=1", "is no fault"},
      {"VLIBServiceStrat=1", "there are APIRequest::GetParam, "},
      {"syslog=fail", "there is no operation 'syslog'"},
      {"VLIBServiceStart=true", "type integer"},
      {"*=1", "type nothing"},
      {"Daemon::GetStatus={\"state\": \"\"}", "no output 'state'; it has error, result, server_id, status"},
      {"Daemon::GetStatus={\"status\": 1}", "its type is string"},
      {"rename=throw", "the name of an error"},
      {"VLIBServiceStart=1@0", "counted from 1"},
      {"VLIBServiceStart=1@99999999999", "type integer"},
  };
  for (const auto& [fault, reason] : cases) {
    try {
      device->faults.Add(fault);
      ADD_FAILURE() << fault;
    } catch (const std::invalid_argument& problem) {
      EXPECT_NE(std::string(problem.what()).find(reason), std::string::npos) << problem.what();
    }
  }
}

TEST_F(DeskTest, StoredFaultsAreReadWithTheDevice) {
  Write("desk/faults", "# a comment\n\nVLIBServiceReload=5\n");
  const auto root = device->Root();
  device.reset();
  device = std::make_unique<Device>(root);
  EXPECT_EQ(VLIBServiceReload("vexarelayd"), 5);
  Write("desk/faults", "nonsense\n");
  device.reset();
  EXPECT_THROW(Device{root}, std::runtime_error);
  std::filesystem::remove(root / "desk/faults");
  std::filesystem::create_directory(root / "desk/faults");
  EXPECT_THROW(Device{root}, std::runtime_error);
}

TEST_F(DeskTest, TheSettingsFileKeepsItsOtherLines) {
  Write(kSettings, "# first\nrunrelayd=\"maybe\"\nother=\"1\"\nrunrelayd=\"twice\"\n");
  EXPECT_EQ(VLIBCINFOSetKeyValue("runrelayd", "yes"), 0);
  EXPECT_EQ(Read(kSettings), "# first\nrunrelayd=\"yes\"\nother=\"1\"\n");
  EXPECT_EQ(VLIBCINFOSetKeyValue("new", "2"), 0);
  EXPECT_EQ(Read(kSettings), "# first\nrunrelayd=\"yes\"\nother=\"1\"\nnew=\"2\"\n");

  char value[4] = {};
  EXPECT_GE(VLIBCFileGetKeyValue("/etc/vexainfo.conf", "runrelayd", value, sizeof(value), 0), 1);
  EXPECT_STREQ(value, "yes");
  EXPECT_EQ(VLIBCFileGetKeyValue("/etc/vexainfo.conf", "run", value, sizeof(value), 0), 0);
  std::filesystem::permissions(Path(kSettings), std::filesystem::perms::owner_read);
  EXPECT_LT(VLIBCINFOSetKeyValue("new", "3"), 0) << "write-protected, for the superuser too";
}

TEST_F(DeskTest, TheAccountToolRunsAndNotesIt) {
  EXPECT_EQ(VLIBCExecl("/usr/vexa/bin/vexakova", 0, "--query_account", static_cast<const char*>(nullptr)), 0);
  EXPECT_EQ(Read("desk/vexakova.log"), "vexakova --query_account\n");
}

/// The system log's buffers are said to hold 8 KiB.
TEST_F(DeskTest, NoPartOfASecretStandsWhereALineIsCutOff) {
  device->faults.Add("AliasRequest::SetRequest=false");
  Write(kConf, kReadyConf);
  StartControlServer();
  Json::Value params = ParseJson(kAliasV1);
  params["kova_account"] = std::string(7960, 'a') + "@b.cc";
  TryMethod("1/set_server_alias", params);
  ASSERT_EQ(Logs().size(), 1u);
  EXPECT_EQ(Logs()[0].find(std::string(kPasswordDigest).substr(0, 8)), std::string::npos);
}

TEST_F(DeskTest, NoHostButTheDesksResolves) {
  StartControlServer();
  EXPECT_EQ(Post("http://elsewhere.example/relay", "{}").result, CURLE_COULDNT_RESOLVE_HOST);
}

TEST(Device, AFolderOfSomebodyElseIsLeftAlone) {
  const std::filesystem::path folder = std::filesystem::temp_directory_path() / "no-desk-device";
  std::filesystem::create_directories(folder / "documents");
  EXPECT_THROW(Device{folder}, std::runtime_error);
  EXPECT_THROW(Device{"/"}, std::runtime_error);
  EXPECT_FALSE(std::filesystem::exists(folder / "usr"));
  std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace desk
