#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "devkit/webapi/module.h"

/// What is known of the module's web API: one OpenRPC document, which is part of the program.
namespace desk {

/// The whole document, without references: what they lead to stands in their place.
const Json::Value& Description();

/// The document as far as it is about `module`: methods that its table lacks are left out, and rows without a
/// description are listed by name in "x-undescribed". The methods of the desk device itself follow.
Json::Value Describe(const Module& module);

/// What is known of `subject`, a code, a log line's id or a unit: an array of objects with the texts "subject",
/// "text", "cause" and "remedy". A line also has its "codes", a code the ids of the "lines" that lead to it, and
/// what a code means in one method only names the "method". Null when nothing is known.
const Json::Value& Explanations(const std::string& subject);

/// What is known of the module's log line that `text` holds somewhere; null when it holds none.
const Json::Value& FindLogLine(const std::string& text);

/// The message of an error code.
std::string CodeText(int code);

/// What helps with the error `code` that a call of `method` came to after it wrote `log`: "cause", "remedy" and
/// "log". The first line that leads to this code only says why, else the code does; one of no description has neither.
Json::Value ErrorData(const std::string& method, int code, const std::vector<std::string>& log);

}  // namespace desk
