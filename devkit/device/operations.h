#pragma once

#include <json/value.h>

#include <optional>
#include <string>

namespace desk {

/// What can be made to fail: an object with one member for each operation, which holds the types of its "result" and
/// of its outputs by name. Types are "boolean", "integer", "string", "any" JSON, "error" for the file functions, which
/// fail with an error's number, and "nothing".
const Json::Value& Operations();

/// The same for people and programs that choose a failure: an array of objects with "operation", "result", "outputs"
/// and "kinds", the texts that stand for common failures of this operation.
Json::Value ListOperations();

/// The result that `text` stands for as `operation` can give it; * is any. Throws `std::invalid_argument`, with the
/// names or the type that there are, when the operation does not exist or does not give that.
Json::Value ParseResult(const std::string& operation, const std::string& text);

}  // namespace desk
