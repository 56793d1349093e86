// JSON files as the methods read and write them: what is moved aside, deleted, replaced.

#include <json/writer.h>
#include <sys/stat.h>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

constexpr char kBadConf[] = "usr/vexa/etc/vexarelayd/vexarelayd.conf.bad";
constexpr char kBroken[] = "utils:90 bad json format [/usr/vexa/etc/vexarelayd/vexarelayd.conf]";
constexpr char kNotLoaded[] = "tunnelbridge.v1:119 load config failed";

using Names = std::vector<std::string>;

class FilesTest : public DeskTest {
 protected:
  /// A list of `count` services.
  static Json::Value Services(int count) {
    Json::Value params;
    params["services"] = Json::arrayValue;
    for (int index = 0; index < count; ++index) {
      params["services"][index]["id"] = "service " + std::to_string(index);
      params["services"][index]["enabled"] = true;
    }
    return params;
  }
};

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

TEST_F(FilesTest, AFileNestedTooDeeplyStaysWhereItIs) {
  Write(kConf, std::string(1500, '['));
  EXPECT_TRUE(TryMethod("1/status", Json::objectValue).thrown);
  EXPECT_TRUE(Exists(kConf));
  EXPECT_FALSE(Exists(kBadConf));
}

TEST_F(FilesTest, AFileThatCannotBeMovedAsideIsDeleted) {
  Write(kConf, "{");
  device->faults.Add("rename=EXDEV");
  EXPECT_EQ(CallMethod("1/status").code, 2900);
  EXPECT_EQ(Logs(), (Names{kBroken,
                           "utils:92 rename /usr/vexa/etc/vexarelayd/vexarelayd.conf to .bad failed. "
                           "Invalid cross-device link",
                           kNotLoaded}));
  EXPECT_FALSE(Exists(kConf));
  EXPECT_FALSE(Exists(kBadConf));
}

TEST_F(FilesTest, WritingReplacesTheWholeContentAndSetsTheMode) {
  const mode_t mask = umask(0077);
  EXPECT_TRUE(TryMethod("Permission/1/set", Services(100)).answers.front().success);
  std::filesystem::permissions(Path(kServices), std::filesystem::perms(0600));
  EXPECT_TRUE(TryMethod("Permission/1/set", Services(1)).answers.front().success);
  umask(mask);
  EXPECT_EQ(Read(kServices), Json::StyledWriter().write(Services(1)["services"]));
  EXPECT_EQ(std::filesystem::status(Path(kServices)).permissions(), std::filesystem::perms(0644));
}

TEST_F(FilesTest, AFullDiskDeletesALargeListAndGoesUnnoticedForASmallOne) {
  std::filesystem::remove(Path(kServices));
  std::filesystem::create_symlink("/dev/full", Path(kServices));
  device->faults.Add("chmod=EPERM");  // the link leads to the machine's own device node
  EXPECT_TRUE(TryMethod("Permission/1/set", Services(1)).answers.front().success);

  EXPECT_EQ(TryMethod("Permission/1/set", Services(10000)).answers.front().code, 2900);
  EXPECT_EQ(Logs(), Names{"tunnelbridge.permission.v1:63 write file[/usr/vexa/etc/vexarelayd/services.conf] failed"});
  EXPECT_FALSE(std::filesystem::is_symlink(Path(kServices)));
  EXPECT_EQ(Count("VLIBServiceIsRunning"), 0u);
}

}  // namespace
}  // namespace desk
