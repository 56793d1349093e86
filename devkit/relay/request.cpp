#include <curl/curl.h>
#include <platform/relay.h>

#include "devkit/device/operation.h"
#include "devkit/relay/files.h"
#include "devkit/relay/transfer.h"

namespace VEXA {
namespace Relay {

using desk::Args;
using desk::Operation;
using desk::Transfer;

namespace {

/// One error of the control server, and the results of both kinds that stand for it.
struct ErrorRow {
  RELAYSERVER_ERR error;
  RELAYD_RET relay;
  ALIAS_RET alias;
};

constexpr ErrorRow kErrors[] = {
    {RELAYSERVER_OK, RELAYD_OK, ALIAS_OK},
    {RELAYSERVER_BAD_REQUEST, RELAYD_REQUEST_REFUSED, ALIAS_FAILED},
    {RELAYSERVER_INTERNAL, RELAYD_SERVER_ERROR, ALIAS_SERVER_ERROR},
    {RELAYSERVER_BUSY, RELAYD_SERVER_BUSY, ALIAS_SERVER_ERROR},
    {RELAYSERVER_UNKNOWN_DEVICE, RELAYD_UNKNOWN_DEVICE, ALIAS_UNKNOWN_DEVICE},
    {RELAYSERVER_KEY_EXPIRED, RELAYD_KEY_EXPIRED, ALIAS_KEY_EXPIRED},
    {RELAYSERVER_UNKNOWN_ACCOUNT, RELAYD_UNKNOWN_ACCOUNT, ALIAS_UNKNOWN_ACCOUNT},
    {RELAYSERVER_BAD_PASSWORD, RELAYD_BAD_PASSWORD, ALIAS_BAD_CREDENTIALS},
    {RELAYSERVER_BAD_AUTH_KEY, RELAYD_BAD_AUTH_KEY, ALIAS_BAD_CREDENTIALS},
    {RELAYSERVER_BAD_ALIAS, RELAYD_FAILED, ALIAS_BAD_NAME},
    {RELAYSERVER_ALIAS_TAKEN, RELAYD_FAILED, ALIAS_TAKEN},
    {RELAYSERVER_NEEDS_FORCE, RELAYD_FAILED, ALIAS_NEEDS_FORCE},
};

/// The row of an error; an error that no row has counts as one inside the server.
const ErrorRow& FindError(RELAYSERVER_ERR error) {
  for (const ErrorRow& row : kErrors) {
    if (row.error == error) return row;
  }
  return FindError(RELAYSERVER_INTERNAL);
}

RELAYSERVER_ERR ErrorOf(const Json::Value& answer) {
  if (!answer.isObject() || !answer.isMember("error")) return RELAYSERVER_OK;
  const Json::Value code = answer["error"].isObject() ? answer["error"]["code"] : Json::Value();
  return code.isInt() ? static_cast<RELAYSERVER_ERR>(code.asInt()) : RELAYSERVER_INTERNAL;
}

/// The results of both kinds that stand for how an exchange went.
struct Results {
  RELAYD_RET relay;
  ALIAS_RET alias;
};

Results ResultsOf(const Transfer& transfer) {
  switch (transfer.result) {
    case CURLE_OK:
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
      return {RELAYD_RESOLVE_FAILED, ALIAS_RESOLVE_FAILED};
    case CURLE_WRITE_ERROR:
      return {RELAYD_BAD_ANSWER, ALIAS_BAD_ANSWER};
    case CURLE_FAILED_INIT:
    case CURLE_OUT_OF_MEMORY:
      return {RELAYD_OUT_OF_RESOURCES, ALIAS_FAILED};
    default:
      return {RELAYD_NETWORK_FAILED, ALIAS_NETWORK_FAILED};
  }
  if (transfer.status == 200) return {RELAYD_OK, ALIAS_OK};
  return {transfer.status == 503 ? RELAYD_SERVER_BUSY : RELAYD_SERVER_ERROR, ALIAS_SERVER_ERROR};
}

/// The host that alias requests go to.
std::string ControlHost() {
  const desk::Unrecorded unrecorded;
  return RelaydConf(desk::kDaemonConfPath).control_server.host;
}

/// The texts of the results, which count from 0.
constexpr const char* kAliasTexts[] = {
    "not_requested",  "registered",     "request_failed",        "alias_taken",  "unknown_account",
    "bad_alias",      "host_not_found", "network_failed",        "server_error", "bad_credentials",
    "unknown_device", "bad_answer",     "alias_on_other_device", nullptr,        "api_key_expired",
};
constexpr const char* kRelayTexts[] = {
    "success",         "failed",         "bad configuration", "bad command",     "out of resources", "server error",
    "host not found",  "network failed", "server busy",       "request refused", "unknown device",   "bad answer",
    "unknown account", "bad password",   "bad auth key",      "api key expired",
};

template <size_t Size>
std::string TextOf(const char* const (&texts)[Size], int result) {
  const bool known = result >= 0 && static_cast<size_t>(result) < Size && texts[result] != nullptr;
  return known ? texts[result] : "unknown result";
}

}  // namespace

Request::Request(const std::string& url, const Json::Value& body, bool use_defaults) : url_(url), body_(body) {
  desk::Construct("Request::Request", Args(url, body, use_defaults), [] {});
}

bool Request::Set(const std::string& url, const Json::Value& body, bool use_defaults) {
  return Operation("Request::Set", Args(url, body, use_defaults)).Run([&] {
    url_ = url;
    body_ = body;
    error_ = url.empty() ? RELAYD_BAD_CONFIG : body.isObject() ? RELAYD_OK : RELAYD_BAD_COMMAND;
    return error_ == RELAYD_OK;
  });
}

bool Request::Send() {
  return Operation("Request::Send").Run([&] {
    const Transfer transfer = desk::Post(url_, desk::ToLine(body_));
    transfer_ = transfer.result;
    answer_ = transfer.answer;
    error_ = ResultsOf(transfer).relay;
    return error_ == RELAYD_OK;
  });
}

bool Request::GetResponse(Json::Value& answer) const {
  return Operation("Request::GetResponse").Output("answer", answer).Run([&] {
    auto parsed = desk::TryParseJson(answer_);
    if (!parsed) error_ = RELAYD_BAD_ANSWER;
    if (parsed) answer = std::move(*parsed);
    return parsed.has_value();
  });
}

RELAYD_RET Request::GetError() const { return desk::Give("Request::GetError", error_); }

int Request::GetCurlResult() const { return desk::Give("Request::GetCurlResult", transfer_); }

AliasRequest::AliasRequest() {
  desk::Construct("AliasRequest::AliasRequest", Args(), [] {});
}

bool AliasRequest::SetRequest(ALIAS_REQUEST_CMD command, const Json::Value& body) {
  return Operation("AliasRequest::SetRequest", Args(static_cast<int>(command), body)).Run([&] {
    if (command != ALIAS_REQUEST_REGISTER || !body.isObject()) return false;
    body_ = body;
    body_["command"] = "set_alias";
    return true;
  });
}

bool AliasRequest::Send(ALIAS_RET& result) {
  return Operation("AliasRequest::Send").Output("alias_result", result).Run([&] {
    result = ALIAS_FAILED;
    if (!turn_) turn_ = std::make_shared<desk::FolderLock>(desk::Device::Get().Root() / "desk");
    const Transfer transfer = desk::Post(desk::ServerUrl(ControlHost()), desk::ToLine(body_));
    result = ResultsOf(transfer).alias;
    if (result != ALIAS_OK) return false;
    const auto answer = desk::TryParseJson(transfer.answer);
    result = answer && answer->isObject() ? FindError(ErrorOf(*answer)).alias : ALIAS_BAD_ANSWER;
    return result == ALIAS_OK;
  });
}

bool AliasRequest::ResponseToString(ALIAS_RET result, std::string& text) {
  return Operation("AliasRequest::ResponseToString", Args(static_cast<int>(result))).Output("text", text).Run([&] {
    text = TextOf(kAliasTexts, result);
    return true;
  });
}

std::string GetErrorStr(RELAYD_RET result) {
  return Operation("GetErrorStr", Args(static_cast<int>(result))).Run([&] { return TextOf(kRelayTexts, result); });
}

RELAYSERVER_ERR ParseServerError(const Json::Value& answer) {
  return Operation("ParseServerError", Args(answer)).Run([&] { return ErrorOf(answer); });
}

RELAYD_RET RespErrMap(RELAYSERVER_ERR error) {
  return Operation("RespErrMap", Args(static_cast<int>(error))).Run([&] { return FindError(error).relay; });
}

}  // namespace Relay
}  // namespace VEXA
