#include <string_view>

#include "answer.h"
#include "handlers.h"
#include "log_unit.h"
#include "utils.h"

namespace {

constexpr LogUnit kUnit{"tunnelbridge.permission.v1"};
constexpr char kServicesPath[] = "/usr/vexa/etc/vexarelayd/services.conf";

/// Finds both members in one pass: two lookups would cost a tenth of what storing the entry does.
void FindMembers(const Json::Value& entry, const Json::Value*& id, const Json::Value*& enabled) {
  for (auto member = entry.begin(), last = entry.end(); member != last; ++member) {
    const char* end = nullptr;
    const char* begin = member.memberName(&end);
    const std::string_view name(begin, end - begin);
    if (name == "id") id = &*member;
    if (name == "enabled") enabled = &*member;
  }
}

int CheckEntry(const Json::Value& entry) {
  const Json::Value* id = nullptr;
  const Json::Value* enabled = nullptr;
  if (entry.isObject()) FindMembers(entry, id, enabled);
  if (id == nullptr || enabled == nullptr) return kUnit.Fail(kInvalidRequest, 47, "%s:%d Invalid entry");
  if (!id->isString() || !enabled->isBool()) return kUnit.Fail(kInvalidRequest, 55, "%s:%d Invalid type");
  return kSuccess;
}

int CheckEntries(const Json::Value& services) {
  Json::ArrayIndex index = 0;
  for (auto entry = services.begin(), last = services.end(); entry != last; ++entry, ++index) {
    // jsoncpp does not store what is missing from an array that was not filled in order: it reads as null.
    const int code = entry.index() == index ? CheckEntry(*entry) : CheckEntry(Json::Value());
    if (code != kSuccess) return code;
  }
  return kSuccess;
}

int ReplaceServices(VEXA::APIRequest& request) {
  if (!request.HasParam("services")) return kUnit.Fail(kInvalidRequest, 31, "%s:%d Invalid parameter");
  const Json::Value services = request.GetParam("services", Json::Value());
  if (!services.isArray()) return kUnit.Fail(kInvalidRequest, 38, "%s:%d Invalid parameter");
  const int code = CheckEntries(services);
  if (code != kSuccess) return code;
  if (!WriteJsonFile(kServicesPath, services)) {
    return kUnit.Fail(kGeneralError, 63, "%s:%d write file[%s] failed", kServicesPath);
  }
  if (NotifyVexarelayd() == -1) return kUnit.Fail(kGeneralError, 70, "%s:%d Fail to set notify vexarelayd");
  return kSuccess;
}

}  // namespace

void GetPermission_v1(VEXA::APIRequest*, VEXA::APIResponse* response) {
  Json::Value payload(Json::objectValue);
  const bool read = ReadJsonFile(kServicesPath, payload["services"]);
  const int code = read ? kSuccess : kUnit.Fail(kGeneralError, 13, "%s:%d cannot read config");
  AnswerReading(*response, code, payload);
}

void SetPermission_v1(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  ServeChange(*request, *response, ReplaceServices);
}
