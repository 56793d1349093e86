#pragma once

#include <string>

#include "devkit/control_server/loopback_server.h"
#include "devkit/webapi/module.h"

namespace desk {

/// Serves a module's methods as JSON-RPC 2.0: POST /rpc, method "API/VERSION/METHOD", parameters by name.
/// A caller who sends "Authorization: Bearer TOKEN" with the right token is an administrator.
class RpcServer {
 public:
  RpcServer(const Module& module, std::string admin_token);

  /// Starts to serve and returns the port. Throws as `LoopbackServer::Start` does.
  int Start(int port) { return server_.Start(port); }

 private:
  void Serve(const httplib::Request& request, httplib::Response& response) const;

  const Module& module_;
  std::string admin_token_;
  LoopbackServer server_;
};

}  // namespace desk
