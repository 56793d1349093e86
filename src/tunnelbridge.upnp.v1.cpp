#include "answer.h"
#include "handlers.h"
#include "log_unit.h"
#include "utils.h"

using VEXA::Relay::UpnpConf;

namespace {

constexpr LogUnit kUnit{"tunnelbridge.upnp.v1"};
constexpr char kUpnpPath[] = "/usr/vexa/etc/vexarelayd/upnp.conf";

int StoreUpnp(VEXA::APIRequest& request, UpnpConf& conf) {
  if (!request.HasParam("enabled")) return kInvalidRequest;
  conf.Overwrite(request.GetParam("", Json::Value()));
  if (!conf.WriteConfig()) return kUnit.Fail(kGeneralError, 47, "%s:%d Failed to write config");
  if (NotifyVexarelayd() == -1) return kUnit.Fail(kGeneralError, 54, "%s:%d Fail to set notify vexarelayd");
  return kSuccess;
}

}  // namespace

void GetUpnp_v1(VEXA::APIRequest*, VEXA::APIResponse* response) {
  const UpnpConf conf(kUpnpPath);
  Json::Value payload;
  if (!conf.Write(payload, true)) kUnit.Log(LOG_ERR, 12, "%s:%d Fail to get upnp config");
  const bool complete = payload.isObject() && payload.isMember("enabled");
  AnswerReading(*response, complete ? kSuccess : kGeneralError, payload);
}

void SetUpnp_v1(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  UpnpConf conf(kUpnpPath);
  ServeChange(*request, *response, [&](auto& asked) { return StoreUpnp(asked, conf); });
}
