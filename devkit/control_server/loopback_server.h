#pragma once

#include <httplib.h>

#include <string>
#include <thread>

namespace desk {

/// An HTTP server on 127.0.0.1 that serves on a thread of its own until it is destroyed.
class LoopbackServer {
 public:
  LoopbackServer();
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  /// Starts to serve on `port`, or on a free one for 0, and returns the port.
  /// Throws `std::runtime_error`, naming the port, when it cannot be had. Set the routes before.
  int Start(int port);

  httplib::Server http;

 private:
  std::thread thread_;
};

constexpr size_t kMostRequestBytes = 1 << 20;

/// Answers with `message` and ends the connection: the library may have left the body unread, and would take it
/// for the next request.
void Refuse(httplib::Response& response, int status, const std::string& message);

}  // namespace desk
