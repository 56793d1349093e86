#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace desk::http {

struct Request {
  /// The value of a header, named in small letters; empty when it was not sent.
  std::string Header(const std::string& name) const;

  std::string method;
  std::string path;
  std::map<std::string, std::string> headers;
  std::string body;
};

struct Response {
  int status = 200;
  std::string body;
  std::map<std::string, std::string> headers = {{"Content-Type", "application/json"}};
  /// More than the body is announced, and the connection ends after it.
  bool breaks_off = false;
};

/// A response that says in words why there is no other.
Response Refusal(int status, const std::string& reason, std::map<std::string, std::string> headers = {});

using Handler = std::function<Response(const Request&)>;

/// An HTTP server on 127.0.0.1. One thread waits for all connections, so that none holds up another, and hands whole
/// requests to up to 64 workers. What goes beyond the bounds in server.cpp is refused with a status and a reason.
class Server {
 public:
  /// `hosts` are the names that a Host header may give, in small letters and without a port; none: any name.
  /// A request with an Origin is refused unless that is one of `origins`, or the server's own under one of `hosts`.
  explicit Server(std::vector<std::string> hosts = {}, std::vector<std::string> origins = {});
  /// Takes no new requests, and answers those whose head has come, if the rest comes within 2 s.
  ~Server();

  /// Has `handler` answer, on several threads at once. Set all routes before the start.
  void Route(const std::string& method, const std::string& path, Handler handler);

  /// Starts to serve on `port`, or on a free one for 0, and returns the port.
  /// Throws `std::runtime_error`, naming the port, when it cannot be had.
  int Start(int port);

 private:
  struct Rules {
    std::vector<std::string> hosts;
    std::vector<std::string> origins;
    std::map<std::string, std::map<std::string, Handler>> routes;
  };
  class Loop;

  Rules rules_;
  std::unique_ptr<Loop> loop_;
};

}  // namespace desk::http
