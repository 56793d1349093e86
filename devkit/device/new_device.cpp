#include "devkit/device/new_device.h"

#include <json/value.h>

#include <random>
#include <stdexcept>

#include "devkit/device/device.h"

namespace desk {
namespace fs = std::filesystem;
namespace {

constexpr char kSettings[] = R"(# system settings of the device
unique="desk"
runrelayd="no"
timezone="UTC"
)";

constexpr char kAccountTool[] = R"(#!/bin/sh
# Stand-in for the account tool: notes that it ran, and with what.
root=$(CDPATH= cd "$(dirname "$0")/../../.." && pwd)
echo "vexakova $*" >> "$root/desk/vexakova.log"
)";

/// The JSON files. The identity that the device registers with is added to "auth.conf".
constexpr char kDocuments[] = R"({
  "usr/vexa/etc/vexarelayd/vexarelayd.conf": {
    "server_id": "",
    "server_alias": {"name": ""},
    "server_control": {"host": "register.vexa.example", "region": "global"},
    "server_kova": {"account": ""}
  },
  "usr/vexa/etc/vexarelayd/services.conf": [
    {"id": "web", "enabled": true},
    {"id": "files", "enabled": true},
    {"id": "ssh", "enabled": false}
  ],
  "usr/vexa/etc/vexarelayd/upnp.conf": {"enabled": true, "lease_seconds": 3600},
  "usr/vexa/etc/vexarelayd/auth.conf": {},
  "usr/vexa/etc/kova/account.json": {
    "name": "owner@vexa.example",
    "id": "kova-1001",
    "auth_key": "desk-auth-key-of-owner",
    "email": "owner@vexa.example"
  },
  "desk/services.json": {
    "vexarelayd": {"enabled": false, "running": false, "start_ms": 700},
    "support-remote-access": {"enabled": true, "running": true}
  }
})";

}  // namespace

std::string RandomHex(unsigned bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::random_device random;
  std::string text;
  for (unsigned digit = 0; digit < 2 * bytes; ++digit) text += kDigits[random() % 16];
  return text;
}

void FillNewDevice(const fs::path& root, const std::string& only) {
  fs::create_directories(root / "desk");
  const auto store = [&](const std::string& path, const std::string& text) {
    const fs::path file = root / path;
    const fs::path folder = file.parent_path();
    if (!only.empty() && only != "/" + path) return false;
    if (fs::weakly_canonical(folder) != folder) throw std::runtime_error("'" + folder.string() + "' is a link");
    fs::create_directories(folder);
    if (fs::exists(file)) return false;
    if (!StoreText(file, text)) throw std::runtime_error("cannot write '" + file.string() + "'");
    return true;
  };
  store("etc/vexainfo.conf", kSettings);
  const std::string tool = "usr/vexa/bin/vexakova";
  if (store(tool, kAccountTool)) fs::permissions(root / tool, fs::perms(0755));
  Json::Value documents = ParseJson(kDocuments);
  Json::Value& identity = documents["usr/vexa/etc/vexarelayd/auth.conf"];
  identity["device"] = "desk-" + RandomHex(4);
  identity["api_key"] = RandomHex(16);
  // The service states come last: with them the device is complete.
  const std::vector<std::string> paths = documents.getMemberNames();
  for (auto path = paths.rbegin(); path != paths.rend(); ++path) store(*path, documents[*path].toStyledString());
}

}  // namespace desk
