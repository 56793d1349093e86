#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "devkit/webapi/module.h"

/// What is known of the module's web API: one OpenRPC document, which is part of the program.
namespace desk {

/// The whole document, with every text where it belongs.
const Json::Value& Description();

/// The document as far as it is about `module`: methods that its table lacks are left out, and rows without a
/// description are listed by name in "x-undescribed".
Json::Value Describe(const Module& module);

/// What is known of `subject`: a code, a log line's id or a unit. An array of objects with the texts "subject",
/// "text", "cause" and "remedy"; a code's first object also has "lines", the ids that lead to it, and the others
/// have the "method" in which the code means something special.
Json::Value Explanations(const std::string& subject);

/// The same of the module's log line that `text` holds somewhere; null when it holds none.
Json::Value FindLogLine(const std::string& text);

/// The message of an error code.
std::string CodeText(int code);

/// What helps with the error `code` of `method`, a call that wrote the lines `log`: the texts "cause" and "remedy",
/// those of a log line that has no other code where there is one, and "log". A method that is not described, or a
/// code that is not the method's, has the code's own; an unknown code has "log" only.
Json::Value ErrorData(const std::string& method, int code, const std::vector<std::string>& log);

}  // namespace desk
