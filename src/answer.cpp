#include "answer.h"

void AnswerReading(VEXA::APIResponse& response, int code, const Json::Value& payload) {
  if (code == kSuccess) return response.SetSuccess(payload);
  response.SetError(code, Json::Value());
}

void AnswerChange(VEXA::APIRequest& request, VEXA::APIResponse& response, int code) {
  if (!request.IsAdmin()) return response.SetError(kNotAdministrator, Json::Value());
  if (code == kSuccess) return response.SetSuccess(Json::Value());
  response.SetError(code, Json::Value());
}
