#pragma once

#include <json/value.h>
#include <platform/webapi.h>

#include "error_codes.h"

/// Answers a reading method: `payload` when `code` is `kSuccess`, else the error `code` with null.
void AnswerReading(VEXA::APIResponse& response, int code, const Json::Value& payload);

/// Answers a changing method: asks once more for the caller's right, then answers with 105, or with success or
/// the error `code`, both with null.
void AnswerChange(VEXA::APIRequest& request, VEXA::APIResponse& response, int code);

/// The guard and the answer of every changing method. Runs `work`, a function of the request that returns a result
/// code, for an administrator only. An exception of `work` passes out and leaves the call unanswered.
/// The right is asked for twice because the work may take seconds, in which the caller can lose it. Handlers make
/// configuration objects before the guard: the library sees them made, and its file read, by refused calls too.
template <typename Work>
void ServeChange(VEXA::APIRequest& request, VEXA::APIResponse& response, Work work) {
  const int code = request.IsAdmin() ? work(request) : kSuccess;
  AnswerChange(request, response, code);
}
