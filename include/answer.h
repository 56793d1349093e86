#pragma once

#include <json/value.h>
#include <platform/webapi.h>

#include "error_codes.h"

/// Answers a reading method: `payload` when `code` is `kSuccess`, else the error `code` with null.
void AnswerReading(VEXA::APIResponse& response, int code, const Json::Value& payload);

/// Answers a changing method: asks once more for the caller's right, then answers with 105, or with success or
/// the error `code`, both with null.
void AnswerChange(VEXA::APIRequest& request, VEXA::APIResponse& response, int code);

/// The guard and the answer of every changing method. Runs `work`, which returns a result code, for an
/// administrator only. An exception of `work` passes out and leaves the call unanswered.
template <typename Work>
void ServeChange(VEXA::APIRequest& request, VEXA::APIResponse& response, Work work) {
  const int code = request.IsAdmin() ? work() : kSuccess;
  AnswerChange(request, response, code);
}
