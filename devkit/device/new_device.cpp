#include "devkit/device/new_device.h"

#include <json/value.h>

#include <random>
#include <stdexcept>

#include "devkit/device/device.h"
#include "devkit/device/operation.h"

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

Json::Value Object(std::initializer_list<std::pair<const char*, Json::Value>> members) {
  Json::Value object(Json::objectValue);
  for (const auto& [name, value] : members) object[name] = value;
  return object;
}

Json::Value DaemonConf() {
  return Object({{"server_id", ""},
                 {"server_alias", Object({{"name", ""}})},
                 {"server_control", Object({{"host", kRegisterHost}, {"region", "global"}})},
                 {"server_kova", Object({{"account", ""}})}});
}

Json::Value Services() {
  Json::Value services(Json::arrayValue);
  services.append(Object({{"id", "web"}, {"enabled", true}}));
  services.append(Object({{"id", "files"}, {"enabled", true}}));
  services.append(Object({{"id", "ssh"}, {"enabled", false}}));
  return services;
}

Json::Value ServiceStates() {
  return Object({{"vexarelayd", Object({{"enabled", false}, {"running", false}, {"start_ms", 700}})},
                 {"support-remote-access", Object({{"enabled", true}, {"running", true}})}});
}

}  // namespace

std::string RandomHex(unsigned bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::random_device random;
  std::string text;
  for (unsigned digit = 0; digit < 2 * bytes; ++digit) text += kDigits[random() % 16];
  return text;
}

void FillNewDevice(const fs::path& root) {
  const auto store = [&root](const char* path, const std::string& text) {
    const fs::path file = root / path;
    fs::create_directories(file.parent_path());
    if (!StoreText(file, text)) throw std::runtime_error("cannot write '" + file.string() + "'");
  };
  const auto store_json = [&](const char* path, const Json::Value& document) {
    store(path, document.toStyledString());
  };
  store("etc/vexainfo.conf", kSettings);
  store_json("usr/vexa/etc/vexarelayd/vexarelayd.conf", DaemonConf());
  store_json("usr/vexa/etc/vexarelayd/services.conf", Services());
  store_json("usr/vexa/etc/vexarelayd/upnp.conf", Object({{"enabled", true}, {"lease_seconds", 3600}}));
  store_json("usr/vexa/etc/vexarelayd/auth.conf",
             Object({{"device", "desk-" + RandomHex(4)}, {"api_key", RandomHex(16)}}));
  store_json("usr/vexa/etc/kova/account.json",
             Object({{"name", kOwner.name}, {"id", kOwner.id}, {"auth_key", kOwner.auth_key}, {"email", kOwner.name}}));
  store("usr/vexa/bin/vexakova", kAccountTool);
  fs::permissions(root / "usr/vexa/bin/vexakova", fs::perms(0755));
  store_json("desk/services.json", ServiceStates());
}

}  // namespace desk
