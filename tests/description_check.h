#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "devkit/webapi/module.h"

namespace desk {

/// Holds a call of a described method against the description: the payload against its schema; the code, the log
/// lines and the parameters that were asked for, which `trace` shows, against those of the method.
void CheckCall(const std::string& method, const Outcome& outcome, const std::vector<Json::Value>& trace);

/// Holds an error of the server against the description: its code, and that it has cause and remedy.
void CheckError(const Json::Value& error);

/// What of `value` is not as `schema` says; empty when all is. Throws `std::logic_error` for a keyword that it does
/// not know: what is not checked is not to be promised.
std::string Violation(const Json::Value& schema, const Json::Value& value);

/// What a reference of the description leads to; `value` itself when it is none.
const Json::Value& Follow(const Json::Value& value);

}  // namespace desk
