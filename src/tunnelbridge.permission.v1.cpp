#include <json/value.h>

#include "answer.h"
#include "error_codes.h"
#include "handlers.h"
#include "log_unit.h"
#include "utils.h"

namespace {

constexpr LogUnit kUnit{"tunnelbridge.permission.v1"};
constexpr char kServicesPath[] = "/usr/vexa/etc/vexarelayd/services.conf";

int CheckEntry(const Json::Value& entry) {
  if (!entry.isObject() || !entry.isMember("id") || !entry.isMember("enabled")) {
    return kUnit.Fail(kInvalidRequest, 47, "%s:%d Invalid entry");
  }
  if (!entry["id"].isString() || !entry["enabled"].isBool()) {
    return kUnit.Fail(kInvalidRequest, 55, "%s:%d Invalid type");
  }
  return kSuccess;
}

int ReplaceServices(VEXA::APIRequest& request) {
  if (!request.HasParam("services")) return kUnit.Fail(kInvalidRequest, 31, "%s:%d Invalid parameter");
  const Json::Value services = request.GetParam("services", Json::Value());
  if (!services.isArray()) return kUnit.Fail(kInvalidRequest, 38, "%s:%d Invalid parameter");
  for (Json::ArrayIndex index = 0; index < services.size(); ++index) {
    const int code = CheckEntry(services[index]);
    if (code != kSuccess) return code;
  }
  if (!WriteJsonFile(kServicesPath, services)) {
    return kUnit.Fail(kGeneralError, 63, "%s:%d write file[%s] failed", kServicesPath);
  }
  if (NotifyVexarelayd() == -1) return kUnit.Fail(kGeneralError, 70, "%s:%d Fail to set notify vexarelayd");
  return kSuccess;
}

}  // namespace

void GetPermission_v1(VEXA::APIRequest*, VEXA::APIResponse* response) {
  Json::Value payload(Json::objectValue);
  int code = kSuccess;
  if (!ReadJsonFile(kServicesPath, payload["services"])) {
    code = kUnit.Fail(kGeneralError, 13, "%s:%d cannot read config");
  }
  AnswerReading(*response, code, payload);
}

void SetPermission_v1(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  ServeChange(*request, *response, [request] { return ReplaceServices(*request); });
}
