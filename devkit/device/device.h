#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>

#include "devkit/device/faults.h"
#include "devkit/device/files.h"
#include "devkit/device/json.h"
#include "devkit/device/trace.h"

namespace desk {

/// One desk device: the folder that stands for its file system, what it was asked, and what shall fail.
/// The platform's functions have no context argument, so a process has one current device at a time.
class Device {
 public:
  /// Whether pauses are slept, or only counted on a clock that nothing else moves.
  enum class Clock { kReal, kCounted };

  /// Uses `root`, and fills it with a device that works when it is missing or empty.
  /// Throws `std::runtime_error` when `root` is the machine's own root or cannot be used.
  explicit Device(const std::filesystem::path& root, Clock clock = Clock::kReal);
  ~Device();

  /// The current device; null when there is none.
  static Device* Find();
  /// The current device. Throws `std::logic_error` when there is none.
  static Device& Get();

  const std::filesystem::path& Root() const { return root_; }

  /// Where an absolute path of the device lies on this machine.
  std::filesystem::path Locate(const std::string& device_path) const;

  /// Reads a JSON file of the device as `LoadJson` does. The trace hides the secrets that it holds from now on.
  std::optional<Json::Value> Load(const std::string& device_path);

  /// Milliseconds since the epoch, or since the start of a counted clock.
  std::int64_t Now() const;
  void Sleep(std::chrono::microseconds pause);

  Trace trace;
  Faults faults;
  /// Port of the control server on the loopback address; 0: there is none.
  std::atomic<int> control_port{0};
  /// Limits of one request to it.
  std::chrono::milliseconds connect_limit{3000};
  std::chrono::milliseconds total_limit{10000};

 private:
  std::filesystem::path root_;
  Clock clock_;
  std::atomic<std::int64_t> counted_{0};
};

}  // namespace desk
