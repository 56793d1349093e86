#pragma once

#include <json/value.h>

#include <string>

namespace desk {

constexpr char kDaemonConfPath[] = "/usr/vexa/etc/vexarelayd/vexarelayd.conf";
constexpr char kAuthConfPath[] = "/usr/vexa/etc/vexarelayd/auth.conf";
constexpr char kAliasStatusPath[] = "/usr/vexa/etc/vexarelayd/alias_status.json";

/// Loads a file of the relay library's; an empty object when it is missing or broken.
Json::Value LoadConf(const std::string& device_path);

/// Sets `section`.`member`, or the top-level `member` for an empty section, and keeps everything else.
/// False, and the file stays as it is, when its present content is no JSON object or it cannot be written.
bool StoreMember(const std::string& device_path, const std::string& section, const std::string& member,
                 const Json::Value& value);

/// Replaces the whole content, under the same conditions.
bool StoreConf(const std::string& device_path, const Json::Value& conf);

/// A text member; empty when it is missing or no text.
std::string Text(const Json::Value& object, const std::string& member);

/// Address of a server's relay service.
std::string ServerUrl(const std::string& host);

}  // namespace desk
