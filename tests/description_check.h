#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "devkit/webapi/module.h"

namespace desk {

/// Holds a call against the description of its method: the payload against the schema; the code, and in `trace` the
/// log lines and the parameters asked for, against those of the method.
void CheckCall(const std::string& method, const Outcome& outcome, const std::vector<Json::Value>& trace);

/// Holds an error of the server against the description: that its code is described, with cause and remedy.
void CheckError(const Json::Value& error);

/// What of `value` is not as `schema` says; empty when all is. Throws `std::logic_error` for a keyword or a type that
/// it does not know, whatever the value: what is not checked is not to be promised.
std::string Violation(const Json::Value& schema, const Json::Value& value);

}  // namespace desk
