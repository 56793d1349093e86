// The desk's own methods: what drives the device while it is served.

#include "devkit/console/methods.h"

#include <unistd.h>

#include <future>

#include "devkit/device/files.h"
#include "devkit/webapi/description.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

namespace fs = std::filesystem;

class ConsoleTest : public DeskTest {
 protected:
  /// The result, which keeps what the description promises; or what is wrong with the parameters.
  Json::Value Ask(const std::string& name, const Json::Value& params = Json::objectValue) {
    try {
      const Json::Value result = CallDeskMethod(*device, "desk." + name, params);
      for (const Json::Value& method : Description()["x-desk-methods"]) {
        EXPECT_EQ(method["name"] == "desk." + name ? Violation(method["result"]["schema"], result) : "", "");
      }
      return result;
    } catch (const ParamsError& problem) {
      return problem.what();
    }
  }
  bool Refuses(const std::string& name, const Json::Value& params) { return Ask(name, params).isString(); }
};

TEST_F(ConsoleTest, DescribedMethodsTakeDescribedParametersOnly) {
  for (const Json::Value& method : Description()["x-desk-methods"]) {
    const std::string name = method["name"].asString().substr(5);
    EXPECT_TRUE(IsDeskMethod("desk." + name)) << name;
    EXPECT_TRUE(Refuses(name, Object({{"other", 1}}))) << name;
    for (const Json::Value& param : method["params"]) {
      EXPECT_TRUE(Refuses(name, Object({{param["name"].asString(), Json::Value()}}))) << name;
      EXPECT_TRUE(!param["required"].asBool() || Refuses(name, Json::objectValue)) << name;
    }
  }
}

TEST_F(ConsoleTest, TheTraceIsGivenFromANumberOn) {
  device->trace.SetSink([](const auto&, const auto&) {});
  CallMethod("Upnp/1/get");
  const Json::Value all = Ask("trace");
  const auto count = all["lines"].size();
  ASSERT_GT(count, 2u);
  EXPECT_EQ(all["next"], Json::UInt64(count));
  const Json::Value some = Ask("trace", Object({{"after", 1}, {"limit", 1}}));
  EXPECT_EQ(some["lines"][0], all["lines"][1]);
  EXPECT_EQ(some["next"], Json::UInt64(2));
  for (int call = 0; call < 10000; ++call) CallMethod("Upnp/1/get");
  const Json::Value later = Ask("trace", Object({{"after", 1}}));
  EXPECT_EQ(later["lines"].size(), 1000u);
  EXPECT_EQ(later["skipped"].asUInt64(), 10001 * count - 10000 - 1);
}

TEST_F(ConsoleTest, AFaultIsAddedMetAndTakenBack) {
  const std::string problem = Ask("add_fault", Object({{"fault", "UpnpConf::Write=1"}})).asString();
  EXPECT_NE(problem.find("type boolean"), std::string::npos) << problem;
  const Json::Value fault = Ask("add_fault", Object({{"fault", "UpnpConf::Write=fail"}}));
  EXPECT_EQ(CallMethod("Upnp/1/get").code, 2900);
  EXPECT_EQ(Ask("faults")[0]["met"], 1u);
  EXPECT_EQ(Ask("remove_fault", fault), true);
  EXPECT_TRUE(Refuses("remove_fault", fault)) << "it is gone";
  EXPECT_TRUE(Refuses("remove_fault", Object({{"id", Json::Value::maxUInt64}})));
  EXPECT_EQ(CallMethod("Upnp/1/get").code, 0);
}

TEST_F(ConsoleTest, AFileIsWrittenReadAndMadeNewAgain) {
  const Json::Value upnp = Object({{"path", std::string("/") + kUpnp}});
  const Json::Value fresh = Ask("read_file", upnp);
  const Json::Value text = "{\"enabled\": 1, \"x\": \"\u00e4\\u0000\"}";
  EXPECT_EQ(Ask("write_file", Object({{"path", upnp["path"]}, {"text", text}})), true);
  EXPECT_EQ(Ask("read_file", upnp)["text"], text);
  fs::remove(Path(kAuth));
  EXPECT_EQ(Ask("reset_file", upnp), true);
  EXPECT_FALSE(Exists(kAuth)) << "nobody asked for it";
  EXPECT_EQ(Ask("read_file", upnp), fresh);
  EXPECT_TRUE(Refuses("write_file", Object({{"path", "/etc/other"}, {"text", std::string(600000, 'a')}})));
  const auto files = Ask("files").size();
  Ask("write_file", Object({{"path", "/etc/other"}, {"text", ""}}));
  EXPECT_EQ(Ask("files").size(), files + 1);
  Ask("reset_file", Object({{"path", "/etc/other"}}));
  EXPECT_EQ(Ask("files").size(), files);
}

TEST_F(ConsoleTest, NothingOutsideTheDeviceIsReached) {
  Write("etc/secret", "inside");
  ASSERT_EQ(symlink("/etc", Path("etc/away").c_str()), 0);
  ASSERT_EQ(symlink(Path("etc/secret").c_str(), Path("etc/link").c_str()), 0);
  Write("desk/admin-token", "secret");
  for (const char* path : {"", "/", "etc/secret", "/etc", "/etc/", "/etc/../etc/secret", "/../passwd", "/etc//secret",
                           "/etc/away/passwd", "/etc/link", "/desk/admin-token", "/no/such", "/etc/secret\\u0000"}) {
    const Json::Value file = ParseJson(R"({"path": ")" + std::string(path) + "\"}");
    EXPECT_TRUE(Refuses("write_file", Object({{"path", file["path"]}, {"text", ""}}))) << path;
    for (const char* method : {"read_file", "reset_file"}) EXPECT_TRUE(Refuses(method, file)) << method << path;
  }
  EXPECT_EQ(Read("etc/secret"), "inside");
  EXPECT_EQ(Read("desk/admin-token"), "secret");
  const std::string listed = ToLine(Ask("files"));
  for (const char* link : {"/etc/away", "/etc/link"}) EXPECT_EQ(listed.find(link), std::string::npos) << listed;
  StartControlServer();
  fs::rename(Path("desk/control-server"), Path("etc/outside"));
  fs::create_directory_symlink(Path("etc/outside"), Path("desk/control-server"));
  EXPECT_TRUE(Refuses("set_control_script", Object({{"script", Json::arrayValue}})));
  EXPECT_FALSE(Exists("etc/outside/script.json"));
  Write("etc/bytes", "\xff");
  EXPECT_TRUE(Refuses("read_file", Object({{"path", "/etc/bytes"}})));
  fs::remove_all(Path("desk/control-server"));
  fs::rename(Path("etc"), Path("outside"));
  fs::create_directory_symlink(Path("outside"), Path("etc"));
  EXPECT_THROW(Ask("reset"), std::runtime_error);
  EXPECT_FALSE(Exists("outside/vexainfo.conf")) << "a new file behind a link";
}

TEST_F(ConsoleTest, StartsAfresh) {
  EXPECT_EQ(Ask("control_state"), Json::Value(Json::objectValue)) << "there is none";
  StartControlServer();
  Write("desk/control-server/state.json", "{}");
  Ask("reset_file", Object({{"path", "/desk/control-server/state.json"}}));
  EXPECT_EQ(Ask("control_state")["accounts"].size(), 2u);
  Ask("set_control_script", ParseJson(R"({"script": [{"error": 102}]})"));
  EXPECT_EQ(Ask("control_script")[0]["error"], 102);
  EXPECT_TRUE(Refuses("set_control_script", ParseJson(R"({"script": [[]]})")));
  Ask("set_service", Object({{"name", "vexarelayd"}, {"enabled", true}}));
  EXPECT_EQ(Ask("services")["vexarelayd"]["enabled"], true);
  EXPECT_TRUE(Refuses("set_service", Object({{"name", "nobody"}, {"enabled", true}})));
  Write(kConf + std::string(".bad"), "{");
  Ask("add_fault", Object({{"fault", "VLIBServiceStart=fail"}}));

  EXPECT_EQ(Ask("reset"), true);
  EXPECT_EQ(Ask("control_script"), Json::Value(Json::arrayValue));
  EXPECT_EQ(Ask("control_state")["accounts"].size(), 2u);
  EXPECT_EQ(Ask("services")["vexarelayd"]["enabled"], false);
  EXPECT_FALSE(Exists(kConf + std::string(".bad")));
  EXPECT_EQ(Ask("faults"), Json::Value(Json::arrayValue));
}

TEST_F(ConsoleTest, TakesTurnsWithTheControlServer) {
  StartControlServer();
  const fs::path file = Path("desk/control-server/state.json");
  std::future<Json::Value> written;
  {
    const FolderLock request(file.parent_path());
    written = std::async(std::launch::async, [this] {
      return Ask("write_file", Object({{"path", "/desk/control-server/state.json"}, {"text", "{}"}}));
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
