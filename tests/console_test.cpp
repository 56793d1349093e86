// The desk's own methods: what drives the device while it is served.

#include "devkit/console/methods.h"

#include <unistd.h>

#include <future>

#include "devkit/device/files.h"
#include "devkit/webapi/description.h"
#include "tests/description_check.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

namespace fs = std::filesystem;

class ConsoleTest : public DeskTest {
 protected:
  /// The result, which keeps what the description promises; or what is wrong with the parameters.
  Json::Value Ask(const std::string& name, const std::string& params = "{}") {
    try {
      const Json::Value result = CallDeskMethod(*device, "desk." + name, ParseJson(params));
      for (const Json::Value& method : Description()["x-desk-methods"]) {
        if (method["name"] != "desk." + name) continue;
        EXPECT_EQ(Violation(method["result"]["schema"], result), "");
      }
      return result;
    } catch (const ParamsError& problem) {
      return problem.what();
    }
  }
  std::string TextOf(const std::string& path) {
    return Ask("read_file", R"({"path": ")" + path + "\"}")["text"].asString();
  }
};

TEST_F(ConsoleTest, DescribedMethodsTakeDescribedParametersOnly) {
  for (const Json::Value& method : Description()["x-desk-methods"]) {
    const std::string name = method["name"].asString().substr(5);
    EXPECT_TRUE(IsDeskMethod("desk." + name)) << name;
    EXPECT_EQ(Ask(name, R"({"other": 1})").isString(), true) << name;
    for (const Json::Value& param : method["params"]) {
      EXPECT_TRUE(Ask(name, "{" + ToLine(param["name"]) + ": null}").isString()) << name;
      EXPECT_EQ(param["required"].asBool() && !Ask(name).isString(), false) << name;
    }
  }
}

TEST_F(ConsoleTest, TheTraceIsGivenFromANumberOn) {
  device->trace.SetSink([](const auto&, const auto&) {});
  CallMethod("Upnp/1/get", "{}");
  const Json::Value all = Ask("trace");
  const auto count = all["lines"].size();
  ASSERT_GT(count, 2u);
  EXPECT_EQ(all["next"], Json::UInt64(count));
  const Json::Value some = Ask("trace", R"({"after": 1, "limit": 1})");
  EXPECT_EQ(some["lines"][0], all["lines"][1]);
  EXPECT_EQ(some["next"], Json::UInt64(2));
  for (int call = 0; call < 10000; ++call) CallMethod("Upnp/1/get", "{}");
  const Json::Value later = Ask("trace", R"({"after": 1})");
  EXPECT_EQ(later["lines"].size(), 1000u);
  EXPECT_EQ(later["skipped"].asUInt64(), 10001 * count - 10000 - 1);
}

TEST_F(ConsoleTest, AFaultIsAddedMetAndTakenBack) {
  EXPECT_NE(Ask("add_fault", R"({"fault": "UpnpConf::Write=1"})").asString().find("type boolean"), std::string::npos);
  const Json::Value id = Ask("add_fault", R"({"fault": "UpnpConf::Write=fail"})")["id"];
  EXPECT_EQ(CallMethod("Upnp/1/get", "{}").code, 2900);
  EXPECT_EQ(Ask("faults")[0]["met"], 1u);
  EXPECT_EQ(Ask("remove_fault", "{\"id\": " + id.asString() + "}"), true);
  EXPECT_TRUE(Ask("remove_fault", "{\"id\": " + id.asString() + "}").isString());
  EXPECT_TRUE(Ask("remove_fault", R"({"id": 18446744073709551615})").isString());
  EXPECT_EQ(CallMethod("Upnp/1/get", "{}").code, 0);
}

TEST_F(ConsoleTest, AFileIsWrittenReadAndMadeNewAgain) {
  const std::string path = "/usr/vexa/etc/vexarelayd/upnp.conf";
  const std::string fresh = TextOf(path);
  EXPECT_EQ(Ask("write_file", R"({"path": ")" + path + R"(", "text": "{\"enabled\": 1, \"x\": \"\u00e4\\u0000\"}"})"),
            true);
  EXPECT_EQ(TextOf(path), "{\"enabled\": 1, \"x\": \"\u00e4\\u0000\"}");
  EXPECT_EQ(Ask("reset_file", R"({"path": ")" + path + "\"}"), true);
  EXPECT_EQ(TextOf(path), fresh);
  EXPECT_TRUE(Ask("write_file", R"({"path": "/etc/other", "text": ")" + std::string(600000, 'a') + "\"}").isString());
  Ask("write_file", R"({"path": "/etc/other", "text": ""})");
  const auto files = Ask("files").size();
  Ask("reset_file", R"({"path": "/etc/other"})");
  EXPECT_EQ(Ask("files").size(), files - 1);
}

TEST_F(ConsoleTest, NothingOutsideTheDeviceIsReached) {
  Write("etc/secret", "inside");
  ASSERT_EQ(symlink("/etc", Path("etc/away").c_str()), 0);
  ASSERT_EQ(symlink(Path("etc/secret").c_str(), Path("etc/link").c_str()), 0);
  Write("desk/admin-token", "secret");
  for (const char* path : {"", "/", "etc/secret", "/etc", "/etc/", "/etc/../etc/secret", "/../passwd", "/etc//secret",
                           "/etc/away/passwd", "/etc/link", "/desk/admin-token", "/no/such", "/etc/secret\\u0000"}) {
    const std::string params = R"({"path": ")" + std::string(path) + R"(", "text": ""})";
    EXPECT_TRUE(Ask("write_file", params).isString()) << path;
    EXPECT_FALSE(Ask("read_file", params.substr(0, params.find(',')) + "}").isObject()) << path;
    EXPECT_TRUE(Ask("reset_file", params.substr(0, params.find(',')) + "}").isString()) << path;
  }
  EXPECT_EQ(Read("etc/secret"), "inside");
  EXPECT_EQ(Read("desk/admin-token"), "secret");
  for (const Json::Value& file : Ask("files")) {
    EXPECT_NE(file["path"].asString().rfind("/etc/away", 0), 0u);
    EXPECT_NE(file["path"], "/etc/link");
  }
  StartControlServer();
  fs::rename(Path("desk/control-server"), Path("etc/outside"));
  fs::create_directory_symlink(Path("etc/outside"), Path("desk/control-server"));
  EXPECT_TRUE(Ask("set_control_script", R"({"script": []})").isString());
  EXPECT_FALSE(Exists("etc/outside/script.json"));
  Write("etc/bytes", "\xff");
  EXPECT_TRUE(Ask("read_file", R"({"path": "/etc/bytes"})").isString());
  fs::remove_all(Path("desk/control-server"));
  fs::rename(Path("etc"), Path("outside"));
  fs::create_directory_symlink(Path("outside"), Path("etc"));
  EXPECT_THROW(Ask("reset"), std::runtime_error);
  EXPECT_FALSE(Exists("outside/vexainfo.conf")) << "a new file behind a link";
}

TEST_F(ConsoleTest, StartsAfresh) {
  EXPECT_EQ(Ask("control_state"), Json::Value(Json::objectValue)) << "another program";
  StartControlServer();
  Ask("set_control_script", R"({"script": [{"error": 102}]})");
  EXPECT_EQ(Ask("control_script")[0]["error"], 102);
  EXPECT_TRUE(Ask("set_control_script", R"({"script": [[]]})").isString());
  Ask("set_service", R"({"name": "vexarelayd", "enabled": true})");
  EXPECT_EQ(Ask("services")["vexarelayd"]["enabled"], true);
  EXPECT_TRUE(Ask("set_service", R"({"name": "nobody", "enabled": true})").isString());
  Write("usr/vexa/etc/vexarelayd/vexarelayd.conf.bad", "{");
  Ask("add_fault", R"({"fault": "VLIBServiceStart=fail"})");

  EXPECT_EQ(Ask("reset"), true);
  EXPECT_EQ(Ask("control_script"), Json::Value(Json::arrayValue));
  EXPECT_EQ(Ask("control_state")["accounts"].size(), 2u);
  EXPECT_EQ(Ask("services")["vexarelayd"]["enabled"], false);
  EXPECT_FALSE(std::filesystem::exists(Path("usr/vexa/etc/vexarelayd/vexarelayd.conf.bad")));
  EXPECT_EQ(Ask("faults"), Json::Value(Json::arrayValue));
}

TEST_F(ConsoleTest, TakesTurnsWithTheControlServer) {
  StartControlServer();
  const fs::path file = Path("desk/control-server/state.json");
  std::future<Json::Value> written;
  {
    const FolderLock request(file.parent_path());
    written = std::async(std::launch::async, [this] {
      return Ask("write_file", R"({"path": "/desk/control-server/state.json", "text": "{}"})");
    });
    for (int round = 0; round < 1000; ++round) {
      ASSERT_TRUE(StoreText(file, "[]"));
      ASSERT_EQ(LoadText(file), "[]");
    }
  }
  EXPECT_EQ(written.get(), true);
  EXPECT_EQ(LoadText(file), "{}");
}

}  // namespace
}  // namespace desk
