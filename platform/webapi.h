#pragma once

#include <json/value.h>

#include <string>

/// The device's web-API framework, as far as a module sees it.
namespace VEXA {

/// One web-API call inside the framework; opaque to modules.
struct APICall;

/// The request side of one call. The framework makes it and owns it; a handler only asks it.
class APIRequest {
 public:
  explicit APIRequest(APICall& call) : call_(&call) {}

  /// True when the calling user is an administrator.
  bool IsAdmin();

  /// True when the request carries the parameter `name`, whatever its value.
  bool HasParam(const std::string& name);

  /// The value of the parameter `name`, or `fallback` when the request does not carry it.
  /// The empty name stands for all parameters of the request, as one object.
  Json::Value GetParam(const std::string& name, const Json::Value& fallback);

 private:
  APICall* call_;
};

/// The response side of one call. A handler calls exactly one of the two operations, once.
class APIResponse {
 public:
  explicit APIResponse(APICall& call) : call_(&call) {}

  /// Answers the call with success and `payload`.
  void SetSuccess(const Json::Value& payload);

  /// Answers the call with the error `code`; `data` goes to the client beside it.
  void SetError(int code, const Json::Value& data);

 private:
  APICall* call_;
};

}  // namespace VEXA

/// Serves one method. It answers through the response before it returns, or throws.
using APIHandler = void (*)(VEXA::APIRequest*, VEXA::APIResponse*);

/// One row of a module's method table, four words on the 32-bit target. A row of zeros ends a table.
struct APITableEntry {
  const char* api;
  int version;
  const char* method;
  APIHandler handler;
};
