#include "devkit/device/operations.h"

#include <cstring>
#include <map>
#include <stdexcept>

#include "devkit/device/device.h"

namespace desk {
namespace {

constexpr int kMostErrors = 134;

constexpr char kByResult[] = R"json({
  "boolean": [
    "APIRequest::HasParam", "APIRequest::IsAdmin", "AliasConf::Overwrite", "AliasConf::SetAliasName",
    "AliasConf::Verify", "AliasRequest::ResponseToString", "AliasRequest::Send", "AliasRequest::SetRequest",
    "AliasStatus::GetStatus", "AliasStatus::SetStatus", "AuthConf::GenerateApiKey", "AuthConf::ReadConf",
    "AuthConf::Write", "Daemon::GetStatus", "Daemon::UpdateAlias", "KovaConf::Overwrite", "KovaConf::SetKovaAccount",
    "KovaConf::Verify", "RelaydConf::DumpDataForAliasReq", "RelaydConf::WriteAliasName",
    "RelaydConf::WriteControlServerHost", "RelaydConf::WriteKovaAccount", "RelaydConf::WriteServerId",
    "Request::GetResponse", "Request::Send", "Request::Set", "ServerConf::Overwrite", "ServerConf::Verify",
    "UpnpConf::Overwrite", "UpnpConf::Write", "UpnpConf::WriteConfig"
  ],
  "integer": [
    "Daemon::GetStatus(Json)", "MD5_Final", "MD5_Init", "MD5_Update", "POST", "ParseServerError",
    "Request::GetCurlResult", "Request::GetError", "RespErrMap", "VEXAKOVAAccountGet", "VEXAKOVAAccountQueryInfo",
    "VEXAKOVAErrGet", "VLIBCExecl", "VLIBCFileGetKeyValue", "VLIBCINFOSetKeyValue", "VLIBServiceIsEnabled",
    "VLIBServiceIsRunning", "VLIBServiceReload", "VLIBServiceStart", "VLIBServiceStop", "regcomp", "regexec"
  ],
  "string": [
    "AliasConf::GetAliasName", "GetErrorStr", "KovaConf::GetKovaAccount", "ServerConf::GetRegion", "ServerConf::GetUrl"
  ],
  "any": ["APIRequest::GetParam"],
  "error": ["chmod", "fopen", "read", "rename", "unlink", "write", "writev"],
  "nothing": [
    "APIResponse::SetError", "APIResponse::SetSuccess", "AliasConf::AliasConf", "AliasRequest::AliasRequest",
    "AliasStatus::AliasStatus", "KovaConf::KovaConf", "RelaydConf::RelaydConf", "Request::Request",
    "ServerConf::ServerConf", "UpnpConf::UpnpConf"
  ]
})json";

constexpr char kOutputs[] = R"json({
  "AliasRequest::ResponseToString": {"text": "string"},
  "AliasRequest::Send": {"alias_result": "integer"},
  "AliasStatus::GetStatus": {"detail": "string", "status": "string"},
  "AuthConf::Write": {"auth": "any"},
  "Daemon::GetStatus": {"error": "string", "server_id": "string", "status": "string"},
  "Daemon::GetStatus(Json)": {"state": "any"},
  "POST": {"answer": "any", "status": "integer"},
  "RelaydConf::DumpDataForAliasReq": {"body": "any"},
  "Request::GetResponse": {"answer": "any"},
  "UpnpConf::Write": {"settings": "any"},
  "VEXAKOVAAccountGet": {"record": "any"},
  "VEXAKOVAAccountQueryInfo": {"info": "any"},
  "VLIBCFileGetKeyValue": {"value": "string"}
})json";

/// How results and outputs of a type commonly fail; every operation also has `fail`.
constexpr char kKinds[] = R"json({
  "boolean": ["throw", "false", "true"],
  "integer": ["throw", "-1", "0", "1"],
  "string": ["throw", "\"\""],
  "any": ["throw", "null", "{}"],
  "error": ["EACCES", "EIO", "EMFILE", "ENOENT", "ENOSPC", "EROFS"],
  "nothing": ["throw"]
})json";

Json::Value MakeOperations() {
  Json::Value operations = ParseJson(kOutputs);
  const Json::Value by_result = ParseJson(kByResult);
  for (const std::string& type : by_result.getMemberNames()) {
    for (const Json::Value& name : by_result[type]) operations[name.asString()]["result"] = type;
  }
  return operations;
}

std::string Join(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) list += (list.empty() ? "" : ", ") + name;
  return list;
}

bool Fits(const std::string& type, const Json::Value& value) {
  if (type == "boolean") return value.isBool();
  if (type == "integer") return value.isInt();
  if (type == "string") return value.isString();
  return type == "any";
}

std::optional<int> ErrorNumber(const std::string& name) {
  for (int number = 1; number < kMostErrors; ++number) {
    const char* known = strerrorname_np(number);
    if (known != nullptr && name == known) return number;
  }
  return std::nullopt;
}

/// Checks outputs to replace, "result" among them.
void CheckOutputs(const std::string& operation, const Json::Value& types, const Json::Value& values) {
  for (const std::string& name : values.getMemberNames()) {
    if (!types.isMember(name)) {
      throw std::invalid_argument(operation + " has no output '" + name + "'; it has " + Join(types.getMemberNames()));
    }
    if (Fits(types[name].asString(), values[name])) continue;
    throw std::invalid_argument("'" + name + "' of " + operation + " cannot be " + ToLine(values[name]) +
                                "; its type is " + types[name].asString());
  }
}

}  // namespace

const Json::Value& Operations() {
  static const Json::Value operations = MakeOperations();
  return operations;
}

Json::Value ListOperations() {
  const Json::Value kinds = ParseJson(kKinds);
  Json::Value list;
  for (const std::string& name : Operations().getMemberNames()) {
    Json::Value line;
    line["operation"] = name;
    line["outputs"] = Operations()[name];
    line["outputs"].removeMember("result", &line["result"]);
    line["kinds"].append(kFail);
    for (const Json::Value& kind : kinds[line["result"].asString()]) line["kinds"].append(kind);
    list.append(line);
  }
  return list;
}

Json::Value ParseResult(const std::string& operation, const std::string& text) {
  const bool any = operation == kAnyOperation;
  if (!any && !Operations().isMember(operation)) {
    throw std::invalid_argument("there is no operation '" + operation + "'; there are " +
                                Join(Operations().getMemberNames()));
  }
  const Json::Value& types = Operations()[operation];
  const std::string type = any ? "nothing" : types["result"].asString();
  if (text == kFail || (text == kThrow && type != "error")) return text;
  if (type == "error") {
    if (const auto number = ErrorNumber(text)) return *number;
    throw std::invalid_argument(operation + " fails with 'fail' or the name of an error such as ENOSPC, not '" + text +
                                "'");
  }
  const auto result = TryParseJson(text);
  if (result && result->isObject() && !any) {
    CheckOutputs(operation, types, *result);
  } else if (!result || !Fits(type, *result)) {
    throw std::invalid_argument(operation + " fails with 'fail', 'throw' or a result of type " + type + ", not '" +
                                text + "'");
  }
  return *result;
}

}  // namespace desk
