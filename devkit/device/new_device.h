#pragma once

#include <filesystem>
#include <string>

namespace desk {

/// Fills `root` with a device that works: a bound cloud account, a daemon configuration with its sections,
/// three services, UPnP on, the relay feature off. Throws `std::runtime_error` when a file cannot be written.
void FillNewDevice(const std::filesystem::path& root);

/// `bytes` random bytes as lowercase hexadecimal text.
std::string RandomHex(unsigned bytes);

/// The cloud accounts that every desk knows, so that a new device and a new control server agree.
struct DemoAccount {
  const char* name;
  const char* password;
  const char* id;
  const char* auth_key;
};
constexpr DemoAccount kOwner{"owner@vexa.example", "owner-password", "kova-1001", "desk-auth-key-of-owner"};
constexpr DemoAccount kGuest{"guest@vexa.example", "guest-password", "kova-1002", "desk-auth-key-of-guest"};

/// The host every new device registers with, and has for its control server until it has registered.
constexpr char kRegisterHost[] = "register.vexa.example";

}  // namespace desk
