#pragma once

#include <json/value.h>

/// The work itself, written as directly as can be with the same jsoncpp calls as the module's.
/// They check nothing, log nothing and ask the platform nothing.
namespace floors {

/// Reads, parses, copies the document for its one section, makes the payload of `status`.
void Status();
/// The same with two sections and the payload of `get`, whose versions make the same one.
void Get();
/// Copies `services` and writes the copy.
void SetPermission(const Json::Value& services);

}  // namespace floors
