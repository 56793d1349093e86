#include "devkit/control_server/loopback_server.h"

#include <stdexcept>

namespace desk {
namespace {

constexpr char kLoopback[] = "127.0.0.1";

/// Without SO_REUSEPORT, which the library would set: two servers would silently share a port.
void SetReuseAddress(socket_t socket) {
  const int yes = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
}

}  // namespace

LoopbackServer::LoopbackServer() {
  http.set_socket_options(SetReuseAddress);
  http.set_tcp_nodelay(true);
  http.set_payload_max_length(kMostRequestBytes);
}

LoopbackServer::~LoopbackServer() {
  http.stop();
  if (thread_.joinable()) thread_.join();
}

int LoopbackServer::Start(int port) {
  const int bound = port == 0 ? http.bind_to_any_port(kLoopback) : http.bind_to_port(kLoopback, port) ? port : -1;
  if (bound < 0) {
    throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(port) +
                             "; is the port in use? Choose another with --port");
  }
  thread_ = std::thread([this] { http.listen_after_bind(); });
  // A stop before the thread serves would be lost, and the thread would serve for ever.
  while (!http.is_running()) std::this_thread::yield();
  return bound;
}

}  // namespace desk
