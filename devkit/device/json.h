#pragma once

#include <json/value.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <utility>

/// JSON as the stand-in reads and writes it.
namespace desk {

/// Parses one document and nothing after it, from whomever it comes. Nothing, with `problem` saying why, when `text` is
/// none, holds a member twice, is nested more than 999 deep, or names a member with a NUL byte. Comments are refused
/// before a value and dropped after one. Throws `std::bad_alloc` for want of memory, which makes no document a broken
/// one.
std::optional<Json::Value> TryParseJson(const std::string& text, std::string* problem = nullptr);

/// Parses a document that stands in the program, whatever its names. Throws `std::logic_error` when it is none.
Json::Value ParseJson(const std::string& text);

/// Makes an object.
Json::Value Object(std::initializer_list<std::pair<std::string, Json::Value>> members);

/// Makes an array.
template <typename... Values>
Json::Value Args(const Values&... values) {
  Json::Value args(Json::arrayValue);
  (args.append(values), ...);
  return args;
}

/// A value as one line.
std::string ToLine(const Json::Value& value);

/// A text member; empty when it is missing or no text.
std::string Text(const Json::Value& object, const std::string& member);

}  // namespace desk
