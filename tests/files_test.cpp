// JSON files as the methods read and write them: what is moved aside, deleted, replaced.

#include <json/writer.h>
#include <sys/stat.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

constexpr char kBadConf[] = "usr/vexa/etc/vexarelayd/vexarelayd.conf.bad";
constexpr char kBroken[] = "utils:90 bad json format [/usr/vexa/etc/vexarelayd/vexarelayd.conf]";
constexpr char kNotLoaded[] = "tunnelbridge.v1:119 load config failed";

using FilesTest = DeskTest;

TEST_F(FilesTest, AFileThatDoesNotParseIsMovedAside) {
  Write(kBadConf, "older");
  for (const char* text : {"", "{", "\xff\xfe"}) {
    Write(kConf, text);
    EXPECT_EQ(CallMethod("1/status").code, 2900);
    EXPECT_EQ(Logs(), (Names{kBroken, kNotLoaded}));
    EXPECT_FALSE(Exists(kConf));
    EXPECT_EQ(Read(kBadConf), text);
  }
  EXPECT_EQ(CallMethod("1/status").code, 2900);
  EXPECT_EQ(Logs(), Names{kNotLoaded}) << "a missing file is not a broken one";
}

TEST_F(FilesTest, CommentsInAFileAreNotGivenOn) {
  Write(kServices, "// a comment\n[]");
  EXPECT_FALSE(CallMethod("Permission/1/get").data["services"].hasComment(Json::commentBefore));
}

TEST_F(FilesTest, AFileNestedTooDeeplyStaysWhereItIs) {
  Write(kConf, std::string(1500, '['));
  EXPECT_TRUE(TryMethod("1/status", Json::objectValue).thrown);
  EXPECT_TRUE(Exists(kConf));
  EXPECT_FALSE(Exists(kBadConf));
}

TEST_F(FilesTest, AFileThatCannotBeReadCountsAsMissingAndStaysWhereItIs) {
  for (const char* way : {"directory", "read=EIO@1", "read=EIO@2"}) {
    SCOPED_TRACE(way);
    std::filesystem::remove_all(Path(kConf));
    if (way == std::string("directory")) {
      std::filesystem::create_directory(Path(kConf));
    } else {
      Write(kConf, "[" + std::string(10000, ' ') + "]");  // takes two reads
      device->faults.Add(way);
    }
    const auto before = Snapshot();
    EXPECT_EQ(CallMethod("1/status").code, 2900);
    EXPECT_EQ(Logs(), Names{kNotLoaded});
    EXPECT_TRUE(Exists(kConf));
    EXPECT_EQ(Snapshot(), before);
    EXPECT_EQ(device->faults.Unmet(), Names());
    device->faults.Clear();
  }
}

/// jsoncpp does not store what was left out of an array that was filled by index; no text of JSON makes one.
TEST_F(FilesTest, APermissionListWithGapsIsRefused) {
  Json::Value params;
  params["services"][1] = ParseJson(R"({"id": "a", "enabled": true})");
  const std::string before = Read(kServices);
  EXPECT_EQ(TryMethod("Permission/1/set", params).answers.at(0).code, 2901);
  EXPECT_EQ(Logs(), Names{"tunnelbridge.permission.v1:47 Invalid entry"});
  EXPECT_EQ(Read(kServices), before);
}

TEST_F(FilesTest, WritingReplacesTheWholeContentAndSetsTheMode) {
  const mode_t mask = umask(0077);
  EXPECT_TRUE(CallMethod("Permission/1/set", Params("long")).success);
  std::filesystem::permissions(Path(kServices), std::filesystem::perms(0600));
  const Json::Value list = ParseJson(R"([{"id": "", "enabled": false, "more": [1, {"x": null}]},
                                         {"id": "", "enabled": true}])");
  EXPECT_TRUE(CallMethod("Permission/1/set", R"({"services": )" + ToLine(list) + "}").success);
  umask(mask);
  EXPECT_EQ(Read(kServices), Json::StyledWriter().write(list));
  EXPECT_EQ(CallMethod("Permission/1/get").data["services"], list);
  EXPECT_EQ(std::filesystem::status(Path(kServices)).permissions(), std::filesystem::perms(0644));
}

TEST_F(FilesTest, AFullDiskDeletesALargeListAndGoesUnnoticedForASmallOne) {
  std::filesystem::remove(Path(kServices));
  std::filesystem::create_symlink("/dev/full", Path(kServices));
  device->faults.Add("chmod=EPERM");  // the link leads to the machine's own device node
  EXPECT_TRUE(CallMethod("Permission/1/set", R"({"services": []})").success);

  EXPECT_EQ(CallMethod("Permission/1/set", Params("long")).code, 2900);
  EXPECT_EQ(Logs(), Names{"tunnelbridge.permission.v1:63 write file[/usr/vexa/etc/vexarelayd/services.conf] failed"});
  EXPECT_FALSE(std::filesystem::is_symlink(Path(kServices)));
  EXPECT_EQ(Count("VLIBServiceIsRunning"), 0u);
}

}  // namespace
}  // namespace desk
