#pragma once

#include <json/value.h>
#include <platform/relay.h>

#include <string>

/// The daemon configuration file, a JSON object of sections; the relay library owns and writes it.
constexpr char kDaemonConfPath[] = "/usr/vexa/etc/vexarelayd/vexarelayd.conf";

/// Reads the JSON document in `path` into `document`, whose former content is lost in any case.
/// False when there is none or it cannot be opened or read, which is not logged, and when it does not parse:
/// that file is logged and moved aside to `path` + ".bad", or deleted when it cannot be moved.
bool ReadJsonFile(std::string path, Json::Value& document);

/// Replaces the content of `path` with the styled text of `document`, mode 0644 whatever the umask.
/// False when it cannot be opened, which is logged, or not written: it is then deleted. The stream buffers,
/// so a small document that fails to reach a full disk fails at close, after it counted as written.
bool WriteJsonFile(std::string path, const Json::Value& document);

/// Applies the member `section` of `document` to `config`. False when there is no such member or `config`
/// does not take or verify it. Callers move in a document that they use for the last time.
bool SetConfig(Json::Value document, std::string section, VEXA::Relay::Config& config);

/// The system-wide switch of the relay feature; off when it cannot be read.
bool GetEnabled();
/// Writes the switch. False when that fails, which is logged.
bool SetEnabled(bool on);

/// Brings the relay services in line with the switch: starts, reloads or stops the daemon.
/// Waits up to 5 s for a daemon that it started. 0, or -1 when starting or stopping failed, which is logged.
int NotifyVexarelayd();

/// Writes the MD5 digest of `input` into `output` as 32 lowercase hexadecimal digits and zeros up to `size`.
/// 0, or -1, logged, when `input` is null, `size` is below 64 bytes or the digest fails.
int GetMd5String(const char* input, char* output, int size);

/// Exchanges with the control server that the registration of an alias needs. All log their failures.
#pragma GCC visibility push(default)

/// One "register" exchange; `answer` holds the server's answer when one arrived. Returns the result: that of
/// the transfer, that of the answer, or 255 when there was nothing to send.
VEXA::Relay::RELAYD_RET SendRegisterServerId(VEXA::Relay::RelaydConf& conf, Json::Value& answer);

/// Registers the device and stores its server id in `conf` and its file. An expired API key is replaced once
/// and the registration tried again. False on failure, even where `result` is 0: the answer had no server id.
bool RegisterServerId(VEXA::Relay::RelaydConf& conf, VEXA::Relay::RELAYD_RET& result);

/// Asks for the site that the device registers with and stores it as the control server's host. False on
/// failure, even where `result` is 0: the answer had no host. `result` stays when there was nothing to send.
bool GetRegisterSite(VEXA::Relay::RelaydConf& conf, VEXA::Relay::RELAYD_RET& result);

#pragma GCC visibility pop
