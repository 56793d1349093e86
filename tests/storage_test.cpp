// The stand-in's own files: nothing of them is lost, whatever stands in the way, and no secret leaves them.

#include <platform/relay.h>
#include <platform/system.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "tests/desk_fixture.h"

namespace desk {
namespace {

namespace fs = std::filesystem;

/// What `store` reports while a limit of this process is lowered.
bool StoreUnder(__rlimit_resource resource, rlim_t most, bool (*store)()) {
  rlimit former{};
  getrlimit(resource, &former);
  const rlimit lowered{most, former.rlim_max};
  setrlimit(resource, &lowered);
  const bool stored = store();
  setrlimit(resource, &former);
  return stored;
}

/// The operations that change a file, and what each of them reports.
struct Storing {
  const char* file;
  bool (*store)();
};
constexpr Storing kStoring[] = {
    {kSettings, [] { return VLIBCINFOSetKeyValue("runrelayd", "yes") == 0; }},
    {"desk/services.json", [] { return VLIBServiceStart("vexarelayd", 0) == 0; }},
    {kConf, [] { return VEXA::Relay::RelaydConf("/usr/vexa/etc/vexarelayd/vexarelayd.conf").WriteServerId(""); }},
    {kAuth, [] { return VEXA::Relay::AuthConf().GenerateApiKey(); }},
    {kUpnp, [] { return VEXA::Relay::UpnpConf("/usr/vexa/etc/vexarelayd/upnp.conf").WriteConfig(); }},
    {kAliasStatus, [] { return VEXA::Relay::AliasStatus().SetStatus("other", "registered", "", true); }},
};

/// The sanitizer looks through a pipe whether an object's memory can be read, and reports it where there is none.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kMayRunOutOfDescriptors = false;
#else
constexpr bool kMayRunOutOfDescriptors = true;
#endif

using StorageTest = DeskTest;

TEST_F(StorageTest, AFileThatCannotBeReadOrWrittenStaysAsItIs) {
  std::signal(SIGXFSZ, SIG_IGN);
  Write(kAliasStatus, R"({"mybox": {"status": "registered"}})");
  for (const Storing& row : kStoring) {
    SCOPED_TRACE(row.file);
    const std::string before = Read(row.file);
    const int next = dup(STDIN_FILENO);
    close(next);
    for (rlim_t more = 0; kMayRunOutOfDescriptors && more < 2; ++more) {
      EXPECT_FALSE(StoreUnder(RLIMIT_NOFILE, static_cast<rlim_t>(next) + more, row.store)) << "with so many: " << more;
    }
    EXPECT_FALSE(StoreUnder(RLIMIT_FSIZE, 1, row.store)) << "with a full disk";
    EXPECT_EQ(Read(row.file), before);
    EXPECT_FALSE(Exists(std::string(row.file) + ".part"));

    fs::remove(Path(row.file));
    mkfifo(Path(row.file).c_str(), 0600);
    EXPECT_FALSE(row.store()) << "in place of a pipe";
    EXPECT_TRUE(fs::is_fifo(Path(row.file)));

    fs::remove(Path(row.file));
    Write(row.file, before);
    fs::permissions(Path(row.file), fs::perms(0640));
    EXPECT_TRUE(row.store()) << "with nothing in the way";
    EXPECT_EQ(fs::status(Path(row.file)).permissions(), fs::perms(0640));
  }
}

TEST_F(StorageTest, TheModuleWaitsForNoPipe) {
  for (const char* file : {kConf, kServices}) {
    fs::remove(Path(file));
    ASSERT_EQ(mkfifo(Path(file).c_str(), 0600), 0);
  }
  for (const char* method : {"1/get", "Permission/1/get", "Permission/1/set"}) {
    EXPECT_EQ(CallMethod(method, R"({"services": []})").code, 2900) << method;
  }
}

TEST_F(StorageTest, ANewFileWithSecretsIsItsOwnersOnly) {
  StartControlServer();
  for (const char* file : {kAuth, kAccount, "desk/control-server/state.json"}) {
    EXPECT_EQ(fs::status(Path(file)).permissions(), fs::perms(0600)) << file;
  }
}

TEST_F(StorageTest, WhatAKilledProgramLeftIsRemoved) {
  const std::string left[] = {std::string(kAuth) + ".part", "desk/services.json.part",
                              "desk/control-server/state.json.part"};
  StartControlServer();
  for (const std::string& file : left) Write(file, "half");
  fs::remove(Path("desk/services.json"));
  const fs::path root = device->Root();
  device.reset();
  device = std::make_unique<Device>(root);
  StartControlServer();
  for (const std::string& file : left) EXPECT_FALSE(Exists(file)) << file;
  EXPECT_TRUE(Exists("desk/services.json")) << "a device that was made by half";
}

TEST_F(StorageTest, OnlyWhatIsASecretIsHidden) {
  StartControlServer();
  Write(kAccount, R"({"id": "1", "auth_key": "se\"crètly"})");
  CallMethod("1/get", R"({"token": "tunnelbridge", "x": [{"auth_key": "tunnelbridge"}]})", false);
  const auto log_of = [this](const Json::Value& params, const char* fault = "AliasRequest::SetRequest=false") {
    device->faults.Add(fault);
    device->trace.Clear();
    Call(FindHandler("2/set_server_alias"), params, true);
    device->faults.Clear();
    return Logs().empty() ? "" : Logs()[0];
  };
  Json::Value params = Object({{"server_alias", "mybox"}});
  const std::string log = log_of(params);
  EXPECT_EQ(log.rfind("tunnelbridge.v2:68 Alias set error: {", 0), 0u) << "an ordinary user has no secrets: " << log;
  EXPECT_EQ(log.find("tly"), std::string::npos) << log;

  for (int number = 0; number < 1000; ++number) params["x"][number]["token"] = "secret-" + std::to_string(number);
  EXPECT_EQ(log_of(params), "(hidden)") << "too many to search for";
  params.removeMember("x");
  EXPECT_EQ(log_of(params), log) << "those of a call end with it";

  const std::string key = ReadJson(kAuth)["api_key"].asString();
  params["server_alias"] = "a" + key + key;
  device->trace.Own("test", ParseJson(R"({"token": "ab-ab-ab"})"));
  EXPECT_EQ(log_of(params, "AliasConf::SetAliasName=false"), "tunnelbridge.v2:57 Alias set error: a(hidden)")
      << "the device's own are known throughout";
}

TEST_F(StorageTest, DeviceAndControlServerAgreeOnTheAlias) {
  StartControlServer();
  std::vector<std::thread> threads;
  for (const char* alias : {"first", "second", "third", "fourth"}) {
    threads.emplace_back([alias] {
      const Json::Value params = Object({{"server_alias", alias}});
      for (int call = 0; call < 10; ++call) Call(FindHandler("2/set_server_alias"), params, true);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ServerState()["aliases"].getMemberNames(), Names{ReadJson(kConf)["server_alias"]["name"].asString()});
}

}  // namespace
}  // namespace desk
