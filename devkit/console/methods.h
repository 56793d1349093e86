#pragma once

#include <json/value.h>

#include <stdexcept>
#include <string>

#include "devkit/device/device.h"

namespace desk {

/// Parameters that do not fit, or that name what is not there; says which.
class ParamsError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Whether there is a method of this name.
bool IsDeskMethod(const std::string& name);

/// Does what the desk method `name` of the description promises to `device`, for an administrator. Throws
/// `ParamsError` when `params` do not fit it, `FileError` when a file of the device cannot be read or written.
Json::Value CallDeskMethod(Device& device, const std::string& name, const Json::Value& params);

}  // namespace desk
