#include <json/value.h>

#include <string_view>

#include "answer.h"
#include "error_codes.h"
#include "handlers.h"
#include "log_unit.h"
#include "utils.h"

namespace {

constexpr LogUnit kUnit{"tunnelbridge.permission.v1"};
constexpr char kServicesPath[] = "/usr/vexa/etc/vexarelayd/services.conf";

/// What an entry of the list must have.
struct Entry {
  const Json::Value* id = nullptr;
  const Json::Value* enabled = nullptr;
};

/// Finds both members in one pass: two lookups would cost a tenth of what storing the entry does.
Entry FindMembers(const Json::Value& value) {
  Entry entry;
  if (!value.isObject()) return entry;
  for (auto member = value.begin(), last = value.end(); member != last; ++member) {
    const char* end = nullptr;
    const char* begin = member.memberName(&end);
    const std::string_view name(begin, end - begin);
    if (name == "id") entry.id = &*member;
    if (name == "enabled") entry.enabled = &*member;
  }
  return entry;
}

int CheckEntry(const Json::Value& value) {
  const Entry entry = FindMembers(value);
  if (entry.id == nullptr || entry.enabled == nullptr) return kUnit.Fail(kInvalidRequest, 47, "%s:%d Invalid entry");
  if (!entry.id->isString() || !entry.enabled->isBool()) return kUnit.Fail(kInvalidRequest, 55, "%s:%d Invalid type");
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
  int code = kSuccess;
  if (!ReadJsonFile(kServicesPath, payload["services"])) {
    code = kUnit.Fail(kGeneralError, 13, "%s:%d cannot read config");
  }
  AnswerReading(*response, code, payload);
}

void SetPermission_v1(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  ServeChange(*request, *response, [request] { return ReplaceServices(*request); });
}
