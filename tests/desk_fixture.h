#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <array>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "devkit/control_server/control_server.h"
#include "devkit/device/device.h"
#include "devkit/webapi/module.h"

namespace desk {

constexpr char kConf[] = "usr/vexa/etc/vexarelayd/vexarelayd.conf";
constexpr char kServices[] = "usr/vexa/etc/vexarelayd/services.conf";
constexpr char kUpnp[] = "usr/vexa/etc/vexarelayd/upnp.conf";
constexpr char kAuth[] = "usr/vexa/etc/vexarelayd/auth.conf";
constexpr char kAliasStatus[] = "usr/vexa/etc/vexarelayd/alias_status.json";
constexpr char kSettings[] = "etc/vexainfo.conf";
constexpr char kAccount[] = "usr/vexa/etc/kova/account.json";

using Names = std::vector<std::string>;

/// A daemon configuration with an alias and an account.
constexpr char kReadyConf[] = R"({"server_id": "7", "server_alias": {"name": "mybox"},
  "server_control": {"host": "eu.control.vexa.example", "region": "eu"},
  "server_kova": {"account": "owner@vexa.example"}})";

/// Parameters that `set_server_alias` accepts.
constexpr char kAliasV1[] =
    R"({"server_alias": "mybox", "kova_account": "owner@vexa.example", "kova_password": "owner-password"})";
constexpr char kPasswordDigest[] = "7d65e1f9862de8d6292ba4888e7c3349";

/// A new desk device in a folder of its own, the built module, and no control server until one is started.
/// Pauses are counted, not slept.
class DeskTest : public testing::Test {
 protected:
  DeskTest();
  ~DeskTest() override;

  /// Calls a method, named as in "1/get", "Upnp/1/set"; expects exactly one answer and returns it.
  Answer CallMethod(const std::string& method, const std::string& params = "{}", bool admin = true);
  /// Calls a method, holds the call against the description, and returns how it went.
  Outcome TryMethod(const std::string& method, const Json::Value& params, bool admin = true);

  /// Log lines of the last call, "debug " before those of debug priority.
  Names Logs() const;
  /// How often the last call asked for an operation.
  unsigned Count(const std::string& operation) const;

  /// Meets what a table's cell says: contents of files and faults.
  void Arrange(const std::string& given);

  void StartControlServer();
  Json::Value ServerState() const { return ReadJson("desk/control-server/state.json"); }

  void Write(const std::string& file, const std::string& text) const;
  std::string Read(const std::string& file) const { return LoadText(Path(file)).value_or(""); }
  Json::Value ReadJson(const std::string& file) const { return LoadJson(Path(file)).value_or(Json::Value()); }
  bool Exists(const std::string& file) const { return std::filesystem::exists(Path(file)); }
  std::filesystem::path Path(const std::string& file) const { return device->Root() / file; }

  /// All files of the device, the desk's own left out, with their content.
  std::map<std::string, std::string> Snapshot() const;

  std::unique_ptr<Device> device;
  std::unique_ptr<ControlServer> control_server;

 private:
  std::filesystem::path root_;
};

/// Holds a call against the description of its method: the payload against the schema; the code, and in `trace` the
/// log lines and the parameters asked for, against those of the method.
void CheckCall(const std::string& method, const Outcome& outcome, const std::vector<Json::Value>& trace);

/// Holds an error of the server against the description: that its code is described, with cause and remedy.
void CheckError(const Json::Value& error);

/// What of `value` is not as `schema` says; empty when all is. Throws `std::logic_error` for a keyword or a type that
/// it does not know, whatever the value: what is not checked is not to be promised.
std::string Violation(const Json::Value& schema, const Json::Value& value);

/// The built module.
const Module& TheModule();

/// The whole name of a method named as `CallMethod` takes it, and its handler.
std::string FullName(const std::string& method);
APIHandler FindHandler(const std::string& method);

/// The rows of a table in tests/data: one a line, columns apart by " | ", "-" where there is nothing, also in columns
/// that a row or a table leaves out at the end; '#' starts a comment.
using Row = std::array<std::string, 8>;
std::vector<Row> ReadTable(const std::string& name);

/// A test's name: the first column of its row.
std::string NameOfRow(const testing::TestParamInfo<Row>& row);

/// The method that the name of a row of calls begins with.
std::string MethodOf(const Row& row);

Names Split(const std::string& text, const std::string& separator);

/// The parts of a table's cell, apart by " ; ".
Names Parts(const std::string& cell);

/// The parameters that a table's cell stands for: on, off, alias, long (a list beyond a stream's buffer), or JSON.
std::string Params(const std::string& cell);

/// A call's answer as a table's cell has it.
std::string Told(const Outcome& outcome);

struct Finished {
  int code;
  std::string out;
};

/// Runs `webapi-host` with shell words, which may have 2>&1 among them.
Finished RunHost(const std::string& words);

}  // namespace desk
