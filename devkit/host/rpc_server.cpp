#include "devkit/host/rpc_server.h"

#include <openssl/crypto.h>
#include <strings.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "devkit/console/methods.h"
#include "devkit/webapi/description.h"

namespace desk {
namespace {

// Error codes of JSON-RPC 2.0.
constexpr int kParseError = -32700;
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;
constexpr int kInternalError = -32603;
/// The module's own code, which the desk methods share.
constexpr int kNotAdministrator = 105;

constexpr char kError[] = "error";
constexpr unsigned kMostRequests = 100;

/// A file of the console.
struct PageFile {
  const char* path;
  const char* type;
  const char* text;
};

constexpr PageFile kPage[] = {
#include "console.inc"
};

/// Nothing comes from elsewhere, and nothing runs that is not a file of the console.
constexpr char kPagePolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

/// A whole answer. `id` is what stands in the request, whose number might not survive being read and written.
std::string Reply(const std::string& id, const char* kind, const Json::Value& value) {
  const std::string member = std::string("\"") + kind + "\":" + ToLine(value);
  const std::string rest = "\"id\":" + id + ",\"jsonrpc\":\"2.0\"";
  return "{" + (kind == kError ? member + "," + rest : rest + "," + member) + "}";
}

std::string ErrorReply(const std::string& id, int code, const std::string& message, const std::string& method = "",
                       const Outcome& outcome = {}, const std::string& problem = "") {
  Json::Value error = Object({{"code", code}, {"message", message}, {"data", ErrorData(method, code, outcome.log)}});
  if (outcome.number != 0) error["data"]["call"] = outcome.number;
  if (!problem.empty()) error["data"]["problem"] = problem;
  return Reply(id, kError, error);
}

/// What is wrong with a request as such; nothing when it can be dispatched.
std::optional<std::string> FindFault(const Json::Value& request) {
  if (!request.isObject()) return "the request is no object";
  if (request["jsonrpc"] != "2.0") return "the member \"jsonrpc\" is not \"2.0\"";
  if (!request["method"].isString()) return "the member \"method\" is missing or no text";
  const Json::Value& id = request["id"];
  if (!id.isNull() && !id.isString() && !id.isNumeric()) return "the member \"id\" is neither text nor number nor null";
  const Json::Value& params = request["params"];
  if (request.isMember("params") && !params.isObject() && !params.isArray()) return "\"params\" is no object";
  return std::nullopt;
}

std::string ServeDesk(const std::string& method, const Json::Value& params, const std::string& id, bool admin) {
  if (!admin) return ErrorReply(id, kNotAdministrator, CodeText(kNotAdministrator), method);
  try {
    return Reply(id, "result", CallDeskMethod(Device::Get(), method, params));
  } catch (const ParamsError& problem) {
    return ErrorReply(id, kInvalidParams, CodeText(kInvalidParams), method, {}, problem.what());
  } catch (const std::exception& problem) {
    return ErrorReply(id, kInternalError, "the device cannot do that", method, {}, problem.what());
  }
}

/// Answers a request. `call` becomes the number of the module's call, if there is one.
std::string Dispatch(const Module& module, const Json::Value& request, const std::string& id, bool admin,
                     unsigned& call) {
  const std::string method = request["method"].asString();
  const Json::Value& given = request["params"];
  const Json::Value params = given.empty() ? Json::Value(Json::objectValue) : given;
  if (method == "rpc.discover") {
    if (!given.empty()) return ErrorReply(id, kInvalidParams, "rpc.discover takes no parameters");
    return Reply(id, "result", Describe(module));
  }
  const APIHandler handler = module.Find(method);
  if (handler == nullptr && !IsDeskMethod(method)) {
    return ErrorReply(id, kMethodNotFound, "no method '" + method + "'; methods are named API/VERSION/METHOD");
  }
  if (!params.isObject()) return ErrorReply(id, kInvalidParams, "\"params\" must be an object of named parameters");
  if (handler == nullptr) return ServeDesk(method, params, id, admin);

  const Outcome outcome = Call(handler, params, admin, method);
  call = outcome.number;
  const bool is_answer = outcome.Problem().empty();
  if (is_answer && outcome.answers.front().success) return Reply(id, "result", outcome.answers.front().data);
  const int code = is_answer ? outcome.answers.front().code : kInternalError;
  return ErrorReply(id, code, is_answer ? CodeText(code) : method + " " + outcome.Problem(), method, outcome);
}

/// The answer to one request of `text`; empty for a notification.
std::string AnswerOne(const Module& module, const Json::Value& request, const std::string& text, bool admin,
                      unsigned& call) {
  if (const auto fault = FindFault(request)) return ErrorReply("null", kInvalidRequest, *fault);
  const Json::Value& id = request["id"];
  const auto start = static_cast<size_t>(id.getOffsetStart());
  const std::string id_text = text.substr(start, static_cast<size_t>(id.getOffsetLimit()) - start);
  const std::string reply = Dispatch(module, request, id_text, admin, call);
  return request.isMember("id") ? reply : "";
}

std::string AnswerAll(const Module& module, const Json::Value& batch, const std::string& text, bool admin,
                      unsigned& call) {
  if (batch.empty() || batch.size() > kMostRequests) {
    return ErrorReply("null", kInvalidRequest, "a batch holds 1 to " + std::to_string(kMostRequests) + " requests");
  }
  std::string replies;
  for (const Json::Value& request : batch) {
    const std::string reply = AnswerOne(module, request, text, admin, call);
    if (!reply.empty()) replies += (replies.empty() ? "[" : ",") + reply;
  }
  return replies.empty() ? "" : replies + "]";
}

/// jsoncpp also takes comments, numbers such as 01, any bytes within a text, and a byte order mark, which it does not
/// count where it says at which place a value stands.
bool IsStrictJson(const std::string& text) {
  return text.rfind("\xEF\xBB\xBF", 0) != 0 && nlohmann::json::accept(text);
}

/// Takes the same time whatever the token is.
bool IsToken(const std::string& authorization, const std::string& token) {
  constexpr char kScheme[] = "Bearer ";
  constexpr size_t kSize = sizeof(kScheme) - 1;
  return authorization.size() == kSize + token.size() && strncasecmp(authorization.c_str(), kScheme, kSize) == 0 &&
         CRYPTO_memcmp(authorization.data() + kSize, token.data(), token.size()) == 0;
}

}  // namespace

RpcServer::RpcServer(const Module& module, std::string admin_token, std::vector<std::string> origins)
    : module_(module), admin_token_(std::move(admin_token)), server_({"127.0.0.1", "localhost"}, std::move(origins)) {
  server_.Route("POST", "/rpc", [this](const http::Request& request) { return Serve(request); });
  server_.Route("GET", "/openrpc.json", [this](const http::Request&) {
    return http::Response{200, ToLine(Describe(module_)) + "\n"};
  });
  for (const PageFile& file : kPage) {
    server_.Route("GET", file.path, [&file](const http::Request&) {
      return http::Response{200, file.text, {{"Content-Type", file.type}, {"Content-Security-Policy", kPagePolicy}}};
    });
  }
}

http::Response RpcServer::Serve(const http::Request& request) const {
  const std::string type = request.Header("content-type");
  if (strcasecmp(type.substr(0, type.find_first_of("; ")).c_str(), "application/json") != 0) {
    return http::Refusal(415, "the content type is not application/json");
  }
  const std::string authorization = request.Header("authorization");
  const bool admin = IsToken(authorization, admin_token_);
  if (!admin && !authorization.empty()) {
    return http::Refusal(401, "the Authorization header does not carry the token of desk/admin-token",
                         {{"WWW-Authenticate", "Bearer realm=\"desk device\""}});
  }
  std::string problem;
  const auto body = TryParseJson(request.body, &problem);
  if (!body || !IsStrictJson(request.body)) {
    if (body) problem = "it has a comment, a number or bytes that JSON does not have";
    return {200, ErrorReply("null", kParseError, "the body is no JSON: " + problem) + "\n"};
  }
  unsigned call = 0;
  const std::string reply = (body->isArray() ? AnswerAll : AnswerOne)(module_, *body, request.body, admin, call);
  http::Response response{200, reply + "\n"};
  if (reply.empty()) response = {204, "", {}};
  if (call != 0) response.headers["Desk-Call"] = std::to_string(call);
  return response;
}

}  // namespace desk
