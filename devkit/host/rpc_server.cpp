#include "devkit/host/rpc_server.h"

#include <charconv>
#include <optional>

#include "devkit/device/device.h"
#include "devkit/webapi/description.h"

namespace desk {
namespace {

// Error codes of JSON-RPC 2.0.
constexpr int kParseError = -32700;
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kInternalError = -32603;

/// Where "API/VERSION/METHOD" leads; null when the module has no such method.
APIHandler FindHandler(const Module& module, const std::string& name) {
  const size_t first = name.find('/');
  const size_t second = name.find('/', first + 1);
  if (first == std::string::npos || second == std::string::npos) return nullptr;
  int version = 0;
  const char* end = name.data() + second;
  const auto number = std::from_chars(name.data() + first + 1, end, version);
  if (number.ec != std::errc() || number.ptr != end) return nullptr;
  return module.Find(name.substr(0, first), version, name.substr(second + 1));
}

Json::Value Reply(const Json::Value& id) {
  Json::Value reply;
  reply["jsonrpc"] = "2.0";
  reply["id"] = id;
  return reply;
}

Json::Value ErrorReply(const Json::Value& id, int code, const std::string& message, const std::string& method = "",
                       const std::vector<std::string>& log = {}) {
  Json::Value reply = Reply(id);
  reply["error"]["code"] = code;
  reply["error"]["message"] = message;
  reply["error"]["data"] = ErrorData(method, code, log);
  return reply;
}

Json::Value ResultReply(const Json::Value& id, const Json::Value& result) {
  Json::Value reply = Reply(id);
  reply["result"] = result;
  return reply;
}

/// What is wrong with a request as such; nothing when it can be dispatched.
std::optional<std::string> FindFault(const Json::Value& request) {
  if (request.isArray()) return "batches are not served; send one request object";
  if (!request.isObject()) return "the request is no object";
  if (request["jsonrpc"] != "2.0") return "the member \"jsonrpc\" is not \"2.0\"";
  if (!request["method"].isString()) return "the member \"method\" is missing or no text";
  const Json::Value& id = request["id"];
  if (!id.isNull() && !id.isString() && !id.isNumeric()) return "the member \"id\" is neither text nor number nor null";
  return std::nullopt;
}

Json::Value Dispatch(const Module& module, const Json::Value& request, bool admin) {
  if (const auto fault = FindFault(request)) return ErrorReply(Json::Value(), kInvalidRequest, *fault);
  const Json::Value& id = request["id"];
  const std::string method = request["method"].asString();
  const Json::Value params = request.get("params", Json::objectValue);
  if (method == "rpc.discover" && (params.isObject() || params.empty())) return ResultReply(id, Describe(module));
  if (!params.isObject()) return ErrorReply(id, kInvalidParams, "\"params\" must be an object of named parameters");
  const APIHandler handler = FindHandler(module, method);
  if (handler == nullptr) {
    return ErrorReply(id, kMethodNotFound, "no method '" + method + "'; methods are named API/VERSION/METHOD");
  }

  const Outcome outcome = Call(handler, params, admin);
  const std::string problem = outcome.Problem();
  if (!problem.empty()) return ErrorReply(id, kInternalError, method + " " + problem, method, outcome.log);
  const Answer& answer = outcome.answers.front();
  if (answer.success) return ResultReply(id, answer.data);
  return ErrorReply(id, answer.code, CodeText(answer.code), method, outcome.log);
}

/// A web page must not reach the device through a name that it made point to this machine.
bool IsLoopbackHost(const std::string& header) {
  const std::string host = header.substr(0, header.rfind(':'));
  return host == "127.0.0.1" || host == "localhost";
}

bool IsJson(const std::string& content_type) {
  return content_type.substr(0, content_type.find(';')) == "application/json";
}

/// The library's own refusals have no text.
void Explain(const httplib::Request&, httplib::Response& response) {
  if (response.has_header("Content-Type")) return;
  if (response.status == 413) return Refuse(response, 413, "the request body is larger than 1 MiB");
  if (response.status == 404) return Refuse(response, 404, "nothing is served under this path");
  Refuse(response, response.status, "the request cannot be served");
}

}  // namespace

RpcServer::RpcServer(const Module& module, std::string admin_token)
    : module_(module), admin_token_(std::move(admin_token)) {
  server_.http.set_error_handler(Explain);
  server_.http.Post("/rpc", [this](const auto& request, auto& response) { Serve(request, response); });
}

void RpcServer::Serve(const httplib::Request& request, httplib::Response& response) const {
  if (!IsLoopbackHost(request.get_header_value("Host"))) {
    return Refuse(response, 403, "the Host header names neither 127.0.0.1 nor localhost");
  }
  if (!IsJson(request.get_header_value("Content-Type"))) {
    return Refuse(response, 415, "the content type is not application/json");
  }
  Json::Value body;
  std::string problem;
  const bool readable = ParseJson(request.body, body, problem);
  const bool admin = request.get_header_value("Authorization") == "Bearer " + admin_token_;
  const Json::Value reply = readable ? Dispatch(module_, body, admin)
                                     : ErrorReply(Json::Value(), kParseError, "the body is no JSON: " + problem);
  const bool is_notification = readable && body.isObject() && !body.isMember("id") && !FindFault(body);
  if (is_notification) {
    response.status = 204;
    return;
  }
  response.set_content(ToLine(reply) + "\n", "application/json");
}

}  // namespace desk
