#pragma once

#include <filesystem>
#include <string>

namespace desk {

/// Fills `root` with a device that works: a bound cloud account, a daemon configuration with its sections,
/// three services, UPnP on, the relay feature off. What is there already stays. With `only`, fills in that file alone,
/// a path of the device. Throws `std::runtime_error` when a file cannot be written, or leads through a link.
void FillNewDevice(const std::filesystem::path& root, const std::string& only = "");

/// `bytes` random bytes as lowercase hexadecimal text.
std::string RandomHex(unsigned bytes);

}  // namespace desk
