#pragma once

#include <json/value.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>

#include "devkit/http/server.h"

namespace desk {

/// The maker's control server as a desk needs it: POST /relay with one JSON command. What it knows lives in
/// "state.json" of its folder, and "script.json" there makes it misbehave; both may be edited while it runs.
class ControlServer {
 public:
  /// Makes the folder and its first state when they are missing.
  explicit ControlServer(const std::filesystem::path& folder);
  /// Makes the first state in `folder` when it is missing. Throws `std::runtime_error` when it cannot be written.
  /// Hold the folder.
  static void FillNew(const std::filesystem::path& folder);
  ~ControlServer();

  /// Starts to serve and returns the port. Throws as `http::Server::Start` does.
  int Start(int port = 0) { return server_.Start(port); }

 private:
  http::Response Serve(const std::string& text);
  /// Takes the next step of the script that is for `command`; null when there is none.
  Json::Value TakeStep(const std::string& command);
  /// Waits as long as the step says, but not beyond the end of the server.
  void Delay(const Json::Value& step);
  /// A key that a step called expired stays expired.
  void Expire(const std::string& key);
  Json::Value LoadState() const;
  Json::Value Execute(const Json::Value& request);

  std::filesystem::path folder_;
  std::mutex mutex_;
  bool ending_ = false;
  std::condition_variable end_;
  http::Server server_;
};

}  // namespace desk
