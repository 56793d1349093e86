#include "devkit/control_server/loopback_server.h"

#include <chrono>
#include <stdexcept>

namespace desk {
namespace {

constexpr char kLoopback[] = "127.0.0.1";
constexpr auto kStartLimit = std::chrono::seconds(10);

/// Without SO_REUSEPORT, which the library would set: two servers would silently share a port.
void SetReuseAddress(socket_t socket) {
  const int yes = 1;
  setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
}

/// The library bounds a body by its Content-Length only.
httplib::Server::HandlerResponse CheckHead(const httplib::Request& request, httplib::Response& response) {
  for (const char* header : {"Transfer-Encoding", "Content-Encoding"}) {
    if (!request.has_header(header)) continue;
    Refuse(response, 400, std::string("the header ") + header + " is not served; send the body as it is");
    return httplib::Server::HandlerResponse::Handled;
  }
  return httplib::Server::HandlerResponse::Unhandled;
}

}  // namespace

void Refuse(httplib::Response& response, int status, const std::string& message) {
  const std::string text = message + "\n";
  // A provider that reports a failure has the library close the connection.
  const auto write_all = [text](size_t, size_t, httplib::DataSink& sink) {
    sink.write(text.data(), text.size());
    return false;
  };
  response.status = status;
  response.set_header("Connection", "close");
  response.set_content_provider(text.size(), "text/plain", write_all);
}

LoopbackServer::LoopbackServer() {
  http.set_socket_options(SetReuseAddress);
  http.set_tcp_nodelay(true);
  http.set_payload_max_length(kMostRequestBytes);
  http.set_pre_routing_handler(CheckHead);
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
  const auto end = std::chrono::steady_clock::now() + kStartLimit;
  while (!http.is_running()) {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("the server does not start to serve");
    std::this_thread::yield();
  }
  return bound;
}

}  // namespace desk
