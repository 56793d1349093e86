#include "error_codes.h"

namespace relay = VEXA::Relay;

namespace {

constexpr int kMapEnd = 255;

int MapErrorCode(const ErrorCodeRow* row, int result) {
  for (; row->result != kMapEnd; ++row) {
    if (row->result == result) return row->code;
  }
  return kGeneralError;
}

}  // namespace

const ErrorCodeRow grgRelayErrorCodeMap[17] = {
    {0, kSuccess},          {8, kServerUnavailable},  {5, kServerUnavailable},
    {6, kNetworkError},     {7, kNetworkError},       {10, kIdentityRefused},
    {12, kIdentityRefused}, {13, kIdentityRefused},   {14, kIdentityRefused},
    {9, kGeneralError},     {15, kGeneralError},      {11, kGeneralError},
    {1, kGeneralError},     {2, kGeneralError},       {3, kGeneralError},
    {4, kGeneralError},     {kMapEnd, kGeneralError},
};

const ErrorCodeRow grgAliasErrorCodeMap[14] = {
    {1, kSuccess},         {5, kInvalidRequest},      {6, kNetworkError},      {7, kNetworkError},
    {3, kAliasTaken},      {12, kAliasOnOtherDevice}, {8, kServerUnavailable}, {4, kIdentityRefused},
    {9, kIdentityRefused}, {10, kIdentityRefused},    {2, kGeneralError},      {11, kGeneralError},
    {14, kGeneralError},   {kMapEnd, kGeneralError},
};

int MapRelayErrorCode(relay::RELAYD_RET result) { return MapErrorCode(grgRelayErrorCodeMap, static_cast<int>(result)); }

int MapAliasErrorCode(relay::ALIAS_RET result) { return MapErrorCode(grgAliasErrorCodeMap, static_cast<int>(result)); }
