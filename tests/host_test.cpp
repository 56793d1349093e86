// `webapi-host`: its commands and exit codes, and the methods over HTTP.

#include "devkit/host/rpc_server.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "devkit/webapi/description.h"
#include "tests/description_check.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

class HostTest : public DeskTest {
 protected:
  /// A folder that does not exist yet, and goes with the test's own device.
  std::string NewRoot() const { return "'" + Path("desk/another").string() + "'"; }
  Finished CallCommand(const std::string& words) const { return RunHost("call --root " + NewRoot() + " " + words); }
};

TEST_F(HostTest, ListShowsTheTable) {
  const Finished list = RunHost("list");
  EXPECT_EQ(list.code, 0);
  EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 11);
  EXPECT_EQ(list.out.substr(0, list.out.find('\n')),
            R"({"api":"VEXA.Core.TunnelBridge","method":"status","version":1})");
}

TEST_F(HostTest, CallAnswersOnStandardOutput) {
  const Finished done = CallCommand("VEXA.Core.TunnelBridge 1 status 2>/dev/null");
  EXPECT_EQ(done.code, 0);
  EXPECT_EQ(done.out, "{\"data\":{\"alias_status\":\"unknown\",\"status\":\"not_running\"},\"success\":true}\n");

  const Finished refused = CallCommand("--as user VEXA.Core.TunnelBridge 1 set 2>/dev/null");
  EXPECT_EQ(refused.code, 1);
  EXPECT_EQ(refused.out, "{\"code\":105,\"data\":null,\"success\":false}\n");
}

TEST_F(HostTest, EveryMistakeHasItsExitCodeAndAMessage) {
  const struct {
    const char* words;
    int code;
    const char* message;
  } cases[] = {
      {"VEXA.Core.TunnelBridge 1 nothing", 2, "no such method"},
      {"VEXA.Core.TunnelBridge 1 set '{'", 2, "no JSON"},
      {"VEXA.Core.TunnelBridge 1 set '[]'", 2, "no JSON object"},
      {"--fault nonsense VEXA.Core.TunnelBridge 1 status", 2, "'nonsense' is no fault"},
      {"--trace /nowhere/trace VEXA.Core.TunnelBridge 1 status", 2, "/nowhere/trace"},
      {"--as root VEXA.Core.TunnelBridge 1 status", 2, "--as"},
      {"--module /nowhere.so VEXA.Core.TunnelBridge 1 status", 3, "/nowhere.so"},
      {"VEXA.Core.TunnelBridge 1 set '{\"enabled\": []}'", 3, "exception"},
      {"VEXA.Core.TunnelBridge 1 status >/dev/full", 2, "standard output"},
      {"--fault Nothing=1 VEXA.Core.TunnelBridge 1 status", 0, "'Nothing=1' met no call"},
  };
  for (const auto& row : cases) {
    const Finished finished = CallCommand("2>&1 " + std::string(row.words));
    EXPECT_EQ(finished.code, row.code) << row.words;
    EXPECT_NE(finished.out.find(row.message), std::string::npos) << row.words << '\n' << finished.out;
  }
}

TEST_F(HostTest, TraceAndLogGoToStandardError) {
  const Finished traced = CallCommand("--trace - --fault fopen=ENOENT VEXA.Core.TunnelBridge 1 status 2>&1");
  EXPECT_NE(traced.out.find(R"("op":"fopen","result":"ENOENT")"), std::string::npos) << traced.out;
  EXPECT_NE(traced.out.find("log: tunnelbridge.v1:119 load config failed\n"), std::string::npos) << traced.out;
}

TEST_F(HostTest, APortInUseIsAMistakeOfTheCaller) {
  LoopbackServer first;
  const std::string port = std::to_string(first.Start(0));
  const Finished second = RunHost("serve --root " + NewRoot() + " --port " + port + " 2>&1");
  EXPECT_EQ(second.code, 2);
  EXPECT_NE(second.out.find("127.0.0.1:" + port), std::string::npos) << second.out;
  EXPECT_FALSE(Exists("desk/another/desk/control-server/port")) << "another program's may stand there";
}

class RpcTest : public DeskTest {
 protected:
  RpcTest() : server_(TheModule(), "secret"), port_(server_.Start(0)), client_("127.0.0.1", port_) {}

  httplib::Result Send(const std::string& body, const httplib::Headers& headers = {},
                       const char* type = "application/json") {
    return client_.Post("/rpc", headers, body, type);
  }
  Json::Value Rpc(const std::string& body, const httplib::Headers& headers = {}) {
    const auto reply = Send(body, headers);
    EXPECT_TRUE(reply) << body;
    const Json::Value answer = reply ? ParseJson(reply->body) : Json::Value();
    if (answer.isMember("error")) CheckError(answer["error"]);
    return answer;
  }

  RpcServer server_;
  int port_;
  httplib::Client client_;
};

TEST_F(RpcTest, TheTokenMakesAnAdministrator) {
  const std::string body =
      R"({"jsonrpc": "2.0", "id": 7, "method": "VEXA.Core.TunnelBridge.Upnp/1/set", "params": {"enabled": false}})";
  for (const char* authorization : {"", "Bearer wrong", "secret"}) {
    EXPECT_EQ(Rpc(body, {{"Authorization", authorization}})["error"]["code"], 105) << authorization;
  }
  EXPECT_EQ(ToLine(Rpc(body, {{"Authorization", "Bearer secret"}})), R"({"id":7,"jsonrpc":"2.0","result":null})");
  const std::string commented = R"({"jsonrpc": "2.0", "id": 7 /*,*/, "method": "VEXA.Core.TunnelBridge.Upnp/1/get"})";
  EXPECT_EQ(Send(commented)->body.rfind(R"({"id":7,"jsonrpc":)", 0), 0u) << "comments are not kept";
  EXPECT_EQ(Rpc(R"({"jsonrpc": "2.0", "id": "a", "method": "VEXA.Core.TunnelBridge.Upnp/1/get"})")["result"]["enabled"],
            false);
}

TEST_F(RpcTest, ARequestThatIsNoneIsAnErrorOfTheFrame) {
  const std::map<std::string, int> cases = {
      {"{", -32700},
      {"", -32700},
      {std::string(2000, '['), -32700},
      {std::string("{}\0", 3), -32700},
      {R"({"id": /**/ 1})", -32700},
      {R"({"a\u0000b": 1})", -32700},
      {R"({"params": [{"\u0000": 1}]})", -32700},
      {R"({"id": 1, "id": 2})", -32700},
      {R"({"id": 1,})", -32700},
      {"[]", -32600},
      {"7", -32600},
      {R"({"id": 1, "method": "VEXA.Core.TunnelBridge/1/get"})", -32600},
      {R"({"jsonrpc": "2.0", "id": 1})", -32600},
      {R"({"jsonrpc": "2.0", "id": {}, "method": "VEXA.Core.TunnelBridge/1/get"})", -32600},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/9/get"})", -32601},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/1x/get"})", -32601},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "/"})", -32601},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/1/get", "params": []})", -32602},
  };
  for (const auto& [body, code] : cases) EXPECT_EQ(Rpc(body)["error"]["code"], code) << body.substr(0, 80);
}

TEST_F(RpcTest, AnExceptionIsAnInternalErrorThatNamesTheMethod) {
  const Json::Value reply =
      Rpc(R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/1/set", "params": {"enabled": "x"}})",
          {{"Authorization", "Bearer secret"}});
  EXPECT_EQ(reply["error"]["code"], -32603);
  EXPECT_NE(reply["error"]["message"].asString().find("VEXA.Core.TunnelBridge/1/set"), std::string::npos);
}

TEST_F(RpcTest, AnErrorTellsCauseRemedyAndLog) {
  const Json::Value data =
      Rpc(R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/1/set", "params": {"enabled": true}})",
          {{"Authorization", "Bearer secret"}})["error"]["data"];
  const Json::Value& line = Explanations("tunnelbridge.v1:260")[0];
  EXPECT_EQ(data["cause"], line["cause"]);
  EXPECT_EQ(data["remedy"], line["remedy"]);
  EXPECT_EQ(data["log"][0], "tunnelbridge.v1:260 alias name and kova account does not set");
}

TEST_F(RpcTest, TheServerDescribesItself) {
  for (const char* params : {"", R"(, "params": [])", R"(, "params": {})"}) {
    const Json::Value reply =
        Rpc(std::string(R"({"jsonrpc": "2.0", "id": 1, "method": "rpc.discover")") + params + "}");
    EXPECT_EQ(reply["result"], Describe(TheModule())) << params;
  }
  Rpc(R"({"jsonrpc": "2.0", "id": 1, "method": "rpc.discover", "params": [1]})");
}

TEST_F(RpcTest, HttpRefusesWhatIsNoCall) {
  const std::string status = R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/1/status"})";
  EXPECT_EQ(Send(status, {{"Host", "desk.example"}})->status, 403);
  EXPECT_EQ(Send(status, {{"Host", "localhost:1"}})->status, 200);
  EXPECT_EQ(Send(status, {}, "text/plain")->status, 415);
  EXPECT_EQ(Send(std::string((1 << 20) + 1, ' '))->status, 413);
  EXPECT_EQ(Send(status, {{"Transfer-Encoding", "chunked"}})->status, 400);
  EXPECT_EQ(Send(status, {{"Content-Encoding", "gzip"}})->status, 400);
  EXPECT_EQ(client_.Get("/rpc")->status, 404);
  EXPECT_EQ(Send(R"({"jsonrpc": "2.0", "method": "VEXA.Core.TunnelBridge/1/status"})")->status, 204);
}

/// Sends `text` to a port of this machine and returns all that comes back until the connection ends.
std::string Exchange(int port, const std::string& text) {
  const int peer = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answer;
  if (connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    send(peer, text.data(), text.size(), MSG_NOSIGNAL);
    for (char part[4096]; const ssize_t size = recv(peer, part, sizeof(part), 0);) {
      if (size < 0) break;
      answer.append(part, static_cast<size_t>(size));
    }
  }
  close(peer);
  return answer;
}

TEST_F(RpcTest, TheBodyOfARefusedRequestIsNoRequest) {
  const std::string call = R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/1/status"})";
  const std::string hidden =
      "POST /rpc HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Type: "
      "application/json\r\nContent-Length: " +
      std::to_string(call.size()) + "\r\n\r\n" + call;
  EXPECT_NE(Exchange(port_, hidden).find("\"result\""), std::string::npos) << "by itself it is one";
  for (const char* head : {"GET /rpc HTTP/1.1\r\n", "POST /rpc HTTP/1.1\r\nTransfer-Encoding: chunked\r\n",
                           "POST /rpc HTTP/1.1\r\nContent-Type: multipart/form-data\r\n"}) {
    // The library reads 4 KiB at a time, and loses what it read beyond a head.
    std::string outer = head + ("Host: desk.example\r\nContent-Length: " + std::to_string(hidden.size()) + "\r\nX: ");
    outer.resize(4096 - 4, 'x');
    const std::string answer = Exchange(port_, outer + "\r\n\r\n" + hidden);
    EXPECT_EQ(answer.rfind("HTTP/1.1 40", 0), 0u) << answer;
    EXPECT_EQ(answer.find("\"result\""), std::string::npos) << answer;
  }
}

}  // namespace
}  // namespace desk
