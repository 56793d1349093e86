#pragma once

#include <json/value.h>

#include <string>

namespace desk {

constexpr char kDaemonConfPath[] = "/usr/vexa/etc/vexarelayd/vexarelayd.conf";
constexpr char kAuthConfPath[] = "/usr/vexa/etc/vexarelayd/auth.conf";
constexpr char kAliasStatusPath[] = "/usr/vexa/etc/vexarelayd/alias_status.json";

/// The host every device registers with, unless its configuration names another.
constexpr char kRegisterHost[] = "register.vexa.example";

/// Loads a file of the relay library's; an empty object when it is missing, broken or cannot be read.
Json::Value LoadConf(const std::string& device_path);

/// Sets members of `section`, or of the file itself for an empty section, and keeps everything else. False, and the
/// file stays as it is, when its present content is no JSON object or it cannot be written. Throws `FileError`.
bool StoreMembers(const std::string& device_path, const std::string& section, const Json::Value& members);

/// Address of a server's relay service.
std::string ServerUrl(const std::string& host);

}  // namespace desk
