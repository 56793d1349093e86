#pragma once

#include <platform/relay.h>

/// The module's web-API codes.
constexpr int kGeneralError = 2900;
constexpr int kInvalidRequest = 2901;
constexpr int kNetworkError = 2902;
constexpr int kIdentityRefused = 2903;
constexpr int kAliasTaken = 2904;
constexpr int kServerUnavailable = 2905;
constexpr int kAliasOnOtherDevice = 2906;
/// Success, and what every result code starts with; never sent.
constexpr int kSuccess = 2907;
/// The framework's code for a caller without the right to call.
constexpr int kNotAdministrator = 105;

/// A registration result that no call has set yet.
constexpr auto kRelayNotSet = static_cast<VEXA::Relay::RELAYD_RET>(255);

/// One row of a map from the relay library's results to web-API codes. A result of 255 ends a map.
struct ErrorCodeRow {
  int result;
  int code;
};

extern const ErrorCodeRow grgRelayErrorCodeMap[17];
extern const ErrorCodeRow grgAliasErrorCodeMap[14];

/// The web-API code that stands for a relay or alias result; `kGeneralError` for one that no map lists.
int MapRelayErrorCode(VEXA::Relay::RELAYD_RET result);
int MapAliasErrorCode(VEXA::Relay::ALIAS_RET result);
