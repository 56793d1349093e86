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

/// A method that reads a file, and what it logs where it cannot.
struct Reading {
  const char* method;
  const char* params;
  const char* file;
  const char* log;
};

constexpr Reading kReadings[] = {
    {"1/status", "{}", kConf, "tunnelbridge.v1:119 load config failed"},
    {"1/get", "{}", kConf, "tunnelbridge.v1:313 load config failed"},
    {"1/set", R"({"enabled": true})", kConf, "tunnelbridge.v1:246 load config failed"},
    {"2/get", "{}", kConf, "tunnelbridge.v2:241 load config failed"},
    {"2/set", R"({"enabled": true})", kConf, "tunnelbridge.v2:173 load config failed"},
    {"Permission/1/get", "{}", kServices, "tunnelbridge.permission.v1:13 cannot read config"},
};

size_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST_F(FilesTest, AFileThatCannotBeReadCountsAsMissingAndStaysWhereItIs) {
  const std::string two_reads = "[" + std::string(10000, ' ') + "]";
  for (const char* way : {"directory", "read=EIO@1", "read=EIO@2"}) {
    for (const Reading& reading : kReadings) {
      SCOPED_TRACE(std::string(way) + " " + reading.method);
      std::filesystem::remove_all(Path(reading.file));
      device->faults.Clear();
      if (way == std::string("directory")) {
        std::filesystem::create_directory(Path(reading.file));
      } else {
        Write(reading.file, two_reads);
        device->faults.Add(way);
      }
      const auto before = Snapshot();
      const size_t descriptors = OpenDescriptors();
      const Outcome outcome = TryMethod(reading.method, ParseJson(reading.params));

      ASSERT_EQ(outcome.Problem(), "");
      EXPECT_EQ(outcome.answers.front().code, 2900);
      EXPECT_EQ(Logs(), Names{reading.log});
      EXPECT_EQ(OpenDescriptors(), descriptors);
      EXPECT_TRUE(Exists(reading.file));
      EXPECT_EQ(Snapshot(), before);
      EXPECT_EQ(Count("VLIBCExecl"), reading.method == std::string("2/get") ? 1u : 0u);
      EXPECT_EQ(device->faults.Unmet(), Names());
    }
  }
}

TEST_F(FilesTest, ADirectoryInPlaceOfTheListIsNotWritten) {
  std::filesystem::remove(Path(kServices));
  std::filesystem::create_directory(Path(kServices));
  EXPECT_EQ(TryMethod("Permission/1/set", Services(1)).answers.front().code, 2900);
  EXPECT_EQ(Logs(), (Names{"utils:112 open failed [/usr/vexa/etc/vexarelayd/services.conf]",
                           "tunnelbridge.permission.v1:63 write file[/usr/vexa/etc/vexarelayd/services.conf] failed"}));
  EXPECT_TRUE(std::filesystem::is_directory(Path(kServices)));
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
