#include "answer.h"

void AnswerReading(VEXA::APIResponse& response, int code, const Json::Value& payload) {
  if (code == kSuccess) {
    response.SetSuccess(payload);
  } else {
    response.SetError(code, Json::Value());
  }
}

void AnswerChange(VEXA::APIRequest& request, VEXA::APIResponse& response, int code) {
  if (!request.IsAdmin()) {
    response.SetError(kNotAdministrator, Json::Value());
  } else {
    AnswerReading(response, code, Json::Value());
  }
}
