#pragma once

#include <string>

#include "devkit/http/server.h"
#include "devkit/webapi/module.h"

namespace desk {

/// Serves a module's methods as JSON-RPC 2.0, batches included: POST /rpc, method "API/VERSION/METHOD", parameters by
/// name. A caller who sends "Authorization: Bearer TOKEN" with the right token is an administrator. Web pages of
/// other origins than `origins` are refused. The answer to a call of the module has its number in the header
/// "Desk-Call". Administrators have the desk methods too; GET / is the console.
class RpcServer {
 public:
  RpcServer(const Module& module, std::string admin_token, std::vector<std::string> origins = {});

  /// Starts to serve and returns the port. Throws as `http::Server::Start` does.
  int Start(int port) { return server_.Start(port); }

 private:
  http::Response Serve(const http::Request& request) const;

  const Module& module_;
  std::string admin_token_;
  http::Server server_;
};

}  // namespace desk
