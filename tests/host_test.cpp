// `webapi-host`: its commands and exit codes, and the methods over HTTP.

#include "devkit/host/rpc_server.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>

#include <deque>
#include <future>

#include "devkit/device/files.h"
#include "devkit/webapi/description.h"
#include "tests/desk_fixture.h"

namespace desk {
namespace {

class HostTest : public DeskTest {
 protected:
  /// A folder that does not exist yet, and goes with the test's own device.
  std::string NewRoot() const { return "'" + Path("desk/another").string() + "'"; }
  Finished CallCommand(const std::string& words) const { return RunHost("call --root " + NewRoot() + " " + words); }
};

TEST_F(HostTest, EveryCommandHasItsExitCodeAndItsWords) {
  const std::tuple<std::string, int, std::string> cases[] = {
      {"--version", 0, "webapi-host 1."},
      {"list", 0, R"({"api":"VEXA.Core.TunnelBridge.Upnp","method":"set","version":1})"},
      {"call --as user VEXA.Core.TunnelBridge 1 set 2>/dev/null", 1, R"({"code":105,"data":null,"success":false})"},
      {"call VEXA.Core.TunnelBridge 1 nothing", 2, "no such method"},
      {"call VEXA.Core.TunnelBridge 1 set '{'", 2, "no JSON"},
      {"call VEXA.Core.TunnelBridge 1 set '[]'", 2, "no JSON object"},
      {"call --fault Nothing=1 VEXA.Core.TunnelBridge 1 status", 2, "there is no operation 'Nothing'"},
      {"call --fault VLIBCExecl=1 VEXA.Core.TunnelBridge 1 status", 0, "'VLIBCExecl=1' met no call"},
      {"call --trace - --fault fopen=ENOENT VEXA.Core.TunnelBridge 1 status >/dev/null", 1, R"("result":"ENOENT")"},
      {"call --trace /nowhere/trace VEXA.Core.TunnelBridge 1 status", 2, "/nowhere/trace"},
      {"call --module /nowhere.so VEXA.Core.TunnelBridge 1 status", 3, "/nowhere.so"},
      {"call VEXA.Core.TunnelBridge 1 set '{\"enabled\": []}'", 3, "exception"},
      {"call VEXA.Core.TunnelBridge 1 status >/dev/full", 2, "standard output"},
      {"check /nowhere.so", 3, "/nowhere.so"},
      {"serve --allow-origin http://desk.example:3000/", 2, "is no origin"},
      {"explain utils:46", 1, "webapi-host: nothing is known of 'utils:46'\n"},
      {"explain </dev/null", 1, "no line of the log is the module's"},
      {"explain - </", 2, "standard input cannot be read"},
      {"list --module '" BROKEN_MODULES "/kNoMethodName.so'", 0, R"("method":"")"},
      {"", 2, "webapi-host: "},
  };
  for (const auto& [words, code, said] : cases) {
    const bool calls = words.rfind("call ", 0) == 0;
    const Finished finished = RunHost("2>&1 " + (calls ? "call --root " + NewRoot() + words.substr(4) : words));
    EXPECT_EQ(finished.code, code) << words;
    EXPECT_NE(finished.out.find(said), std::string::npos) << words << '\n' << finished.out;
    EXPECT_TRUE(code != 2 || finished.out.rfind("webapi-host: ", 0) == 0) << finished.out;
  }
}

TEST_F(HostTest, ATraceIsShownToPeopleAndToViewers) {
  const std::string file = " '" + Path("desk/trace").string() + "' ";
  const std::string call = "--trace" + file + "--fault UpnpConf::Write=fail VEXA.Core.TunnelBridge.Upnp 1 get 2>&1";
  for (int run = 1; run <= 2; ++run) CallCommand(call);
  const std::string tree = RunHost("trace" + file).out;
  EXPECT_NE(tree.find("  injected: UpnpConf::Write=fail\n"), std::string::npos) << tree;
  EXPECT_NE(tree.find("\ncall 1  "), std::string::npos) << "a call of another run\n" << tree;
  const Json::Value events = ParseJson(RunHost("trace --events" + file).out)["traceEvents"];
  Json::Int64 end = 0;
  for (const Json::Value& event : events) {
    EXPECT_GE(event["ts"].asInt64(), end) << "in order, and none within another";
    end = event["ts"].asInt64() + event["dur"].asInt64();
  }
  EXPECT_EQ(events[0]["tid"], 1);
  EXPECT_EQ(events.size(), std::count(tree.begin(), tree.end(), '\n') - 2);
  Write("desk/trace", "oops\n");
  const Finished none = RunHost("trace - 2>&1 <" + file);
  EXPECT_EQ(none.code, 1);
  EXPECT_EQ(none.out, "webapi-host: line 1 is no line of a trace and is left out\nwebapi-host: '-' holds no trace\n");
}

TEST_F(HostTest, ALongTraceBecomesAnEarlierOne) {
  const std::string full(16 << 20, '\n');
  Write("desk/trace", full);
  const std::string words = "--trace '" + Path("desk/trace").string() + "' VEXA.Core.TunnelBridge.Upnp 1 get 2>&1";
  std::filesystem::create_directory(Path("desk/trace.1"));
  EXPECT_NE(CallCommand(words).out.find("lines of the trace cannot be written"), std::string::npos);
  EXPECT_TRUE(Read("desk/trace") == full) << "nothing can take its place";
  std::filesystem::remove(Path("desk/trace.1"));
  CallCommand(words);
  EXPECT_TRUE(Read("desk/trace.1") == full);
  EXPECT_EQ(Read("desk/trace").rfind("{\"args\":", 0), 0u);
}

TEST_F(HostTest, ASecondServerOnAPortOrFolderIsRefused) {
  http::Server first;
  const std::string port = std::to_string(first.Start(0));
  const File serving(open(Path("desk/serving").c_str(), O_RDWR | O_CREAT, S_IRUSR | S_IWUSR));
  ASSERT_EQ(flock(serving, LOCK_EX), 0);
  const std::string root = "'" + device->Root().string() + "'";
  const std::map<std::string, std::string> cases = {{NewRoot() + " --port " + port, "127.0.0.1:" + port},
                                                    {root + " --port 0", "is being served already"}};
  for (const auto& [words, said] : cases) {
    const Finished second = RunHost("serve 2>&1 --root " + words);
    EXPECT_EQ(second.code, 2);
    EXPECT_NE(second.out.find(said), std::string::npos) << second.out;
  }
  for (const char* file : {"desk/admin-token", "desk/control-server/port", "desk/another/desk/control-server/port"}) {
    EXPECT_FALSE(Exists(file)) << "the first one's may stand there: " << file;
  }
}

/// A client with a connection to a port of this machine.
class Peer {
 public:
  explicit Peer(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  void Send(const std::string& text) const { send(socket_, text.data(), text.size(), MSG_NOSIGNAL); }
  void SendLast(const std::string& text) const {
    Send(text);
    shutdown(socket_, SHUT_WR);
  }
  /// What comes until the connection ends, or `end` has come.
  std::string Receive(const std::string& end = "") const {
    std::string answer;
    for (char part[4096]; end.empty() || answer.find(end) == std::string::npos;) {
      const ssize_t size = recv(socket_, part, sizeof(part), 0);
      if (size <= 0) break;
      answer.append(part, static_cast<size_t>(size));
    }
    return answer;
  }

 private:
  const File socket_{socket(AF_INET, SOCK_STREAM, 0)};
};

/// Sends `text` to a port of this machine and returns all that comes back until the connection ends.
std::string Exchange(int port, const std::string& text) {
  const Peer peer(port);
  peer.SendLast(text);
  return peer.Receive();
}

std::string BodyOf(const std::string& answer) { return answer.substr(answer.find("\r\n\r\n") + 4); }

constexpr char kStatus[] = R"({"jsonrpc": "2.0", "id": 1, "method": "VEXA.Core.TunnelBridge/1/status"})";
constexpr char kAdmin[] = "Authorization: Bearer secret\r\n";
const std::string json = "Content-Type: application/json\r\n";
const std::string local = "Host: localhost\r\nConnection: close\r\n";

/// A request with `headers`, to which it adds a Content-Length unless they speak of one.
std::string Post(const std::string& headers, const std::string& body = kStatus) {
  const bool has_length = headers.find("Content-Length") != std::string::npos;
  return "POST /rpc HTTP/1.1\r\n" + headers +
         (has_length ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") + "\r\n" + body;
}

class RpcTest : public DeskTest {
 protected:
  RpcTest() : server_(TheModule(), "secret"), port_(server_.Start(0)) {}

  static std::string Request(const std::string& method, const std::string& params = "{}") {
    return R"({"jsonrpc": "2.0", "id": 7, "method": ")" + method + R"(", "params": )" + params + "}";
  }
  /// The answer to a call with these headers beside the usual ones, its head included.
  std::string Send(const std::string& body, const std::string& headers = "") const {
    return Exchange(port_, Post(local + json + headers, body));
  }
  std::string Get(const std::string& path) const {
    return Exchange(port_, "GET " + path + " HTTP/1.1\r\n" + local + "\r\n");
  }
  Json::Value Rpc(const std::string& body, const std::string& headers = "") const {
    const Json::Value reply = ParseJson(BodyOf(Send(body, headers)));
    if (reply.isMember("error")) CheckError(reply["error"]);
    return reply;
  }

  RpcServer server_;
  int port_;
};

TEST_F(RpcTest, TheTokenMakesAnAdministrator) {
  const std::string body = Request("VEXA.Core.TunnelBridge.Upnp/1/set", R"({"enabled": false})");
  EXPECT_EQ(Rpc(body)["error"]["code"], 105);
  for (const char* wrong : {"Bearer wrong", "Bearer secreT", "secret", "Basic secret", "Bearer "}) {
    const std::string answer = Send(body, std::string("Authorization: ") + wrong + "\r\n");
    EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 401") << wrong;
    EXPECT_NE(answer.find("WWW-Authenticate: Bearer"), std::string::npos) << wrong;
  }
  EXPECT_EQ(ToLine(Rpc(body, "Authorization: bEARER secret\r\n")), R"({"id":7,"jsonrpc":"2.0","result":null})");
  EXPECT_EQ(Rpc(Request("VEXA.Core.TunnelBridge.Upnp/1/get"))["result"]["enabled"], false);

  const std::string fault = Request("desk.add_fault", R"({"fault": "x"})");
  EXPECT_EQ(Rpc(fault)["error"]["code"], 105);
  EXPECT_EQ(Rpc(fault, kAdmin)["error"]["data"]["problem"].asString().rfind("'x' is no", 0), 0u);
}

TEST_F(RpcTest, TheConsoleRunsNothingFromElsewhere) {
  const std::string page = Get("/");
  EXPECT_NE(page.find("\r\nContent-Security-Policy: default-src 'none'; script-src 'self';"), std::string::npos)
      << page;
  EXPECT_NE(page.find("<!DOCTYPE html>"), std::string::npos);
}

// The examples of the protocol's document and some of its corners. $ stands for a method, ~ for what it answers, * for
// the rest of an error; answers are patterns, in which a list begins with [[].
TEST_F(RpcTest, TheProtocolIsKeptWhole) {
  const std::string status = R"("method": "VEXA.Core.TunnelBridge/1/status")";
  const std::string result = R"("jsonrpc":"2.0","result":{"alias_status":"unknown","status":"not_running"}})";
  const std::string foreign = R"({"jsonrpc": "2.0", "method": "foobar", "id": "1"})";
  const std::string call = R"({"jsonrpc": "2.0", "id": 1, $})";
  const std::string notification = R"({"jsonrpc": "2.0", $})";
  const auto error = [](const std::string& code, const std::string& id) {
    return R"({"error":{"code":)" + code + R"(,*},"id":)" + id + R"(,"jsonrpc":"2.0"})";
  };
  const std::string invalid = error("-32600", "null");
  const std::string no_json = error("-32700", "null");
  std::string hundred = "[" + call;
  for (int count = 1; count < 100; ++count) hundred += "," + call;
  const std::pair<std::string, std::string> cases[] = {
      {call, R"({"id":1,~)"},
      {R"({"jsonrpc": "2.0", "id": 3, $, "params": []})", R"({"id":3,~)"},
      {R"({"jsonrpc": "2.0", "id": 0.1, $})", R"({"id":0.1,~)"},
      {R"({"jsonrpc": "2.0", "id": 123456789012345678901234567890, $})", R"({"id":123456789012345678901234567890,~)"},
      {R"({"jsonrpc": "2.0", "id": "a\u0062\"", $})", R"({"id":"a\u0062\"",~)"},
      {R"({"jsonrpc": "2.0", "id": null, $})", R"({"id":null,~)"},
      {notification, ""},
      {R"({"jsonrpc": "2.0", "method": "foobar"})", ""},
      {foreign, error("-32601", R"("1")")},
      {R"({"jsonrpc": "2.0", "id": 1, "method": "rpc.nothing"})", error("-32601", "1")},
      {R"({"jsonrpc": "2.0", "id": 1, $, "params": [1]})", error("-32602", "1")},
      {R"({"jsonrpc": "2.0", "method": "foobar, "params": "bar", "baz])", no_json},
      {R"({"jsonrpc": "2.0", "method": 1, "params": "bar"})", invalid},
      {R"({"jsonrpc": "2.0", "id": 1, $, "params": "bar"})", invalid},
      {R"({"jsonrpc": "1.0", "id": 1, $})", invalid},
      {R"({"jsonrpc": "2.0", "id": {}, $})", invalid},
      {"7", invalid},
      {"", no_json},
      {std::string(2000, '['), no_json},
      {std::string("{}\0", 3), no_json},
      {R"({"params": [{"\u0000": 1}]})", no_json},
      {R"({"id": 1, "id": 2})", no_json},
      {R"({"id": 1,})", no_json},
      {"\xEF\xBB\xBF" + call, no_json},
      {R"({"jsonrpc": "2.0", "id": 1 /**/, $})", no_json},
      {"{\"jsonrpc\": \"2.0\", \"id\": \"\xff\", $}", no_json},
      {"[]", invalid},
      {"[1,2,3]", "[[]" + invalid + "," + invalid + "," + invalid + "]"},
      {"[" + call + "," + notification + "," + foreign + R"(,{"foo": "boo"}])",
       R"([[]{"id":1,~,)" + error("-32601", R"("1")") + "," + invalid + "]"},
      {"[" + notification + "," + notification + "]", ""},
      {hundred + "]", R"([[]{"id":1,~,*,{"id":1,~])"},
      {hundred + "," + call + "]", invalid},
  };
  const auto fill = [](std::string text, char mark, const std::string& value) {
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += value.size()) text.replace(at, 1, value);
    return text;
  };
  for (const auto& [request, expected] : cases) {
    const std::string answer = Send(fill(request, '$', status));
    const std::string body = BodyOf(answer);
    if (body.rfind("{\"error\"", 0) == 0) CheckError(ParseJson(body)["error"]);
    const std::string pattern = expected.empty() ? "" : fill(expected, '~', result) + "\n";
    EXPECT_EQ(fnmatch(pattern.c_str(), body.c_str(), FNM_NOESCAPE), 0) << request.substr(0, 200) << '\n' << body;
    EXPECT_EQ(answer.substr(0, 12), expected.empty() ? "HTTP/1.1 204" : "HTTP/1.1 200") << request.substr(0, 200);
  }
}

TEST_F(RpcTest, AnErrorTellsItsCall) {
  const std::string answer = Send(Request("VEXA.Core.TunnelBridge/1/set", R"({"enabled": "x"})"), kAdmin);
  const Json::Value error = ParseJson(BodyOf(answer))["error"];
  CheckError(error);
  EXPECT_EQ(error["code"], -32603);
  EXPECT_EQ(error["data"]["call"].asUInt(), device->trace.Lines().back()["call"].asUInt());
  EXPECT_NE(answer.find("\r\nDesk-Call: " + error["data"]["call"].asString() + "\r\n"), std::string::npos) << answer;
}

TEST_F(RpcTest, TheServerDescribesItself) {
  const Json::Value description = Describe(TheModule());
  EXPECT_EQ(Rpc(R"({"jsonrpc": "2.0", "id": 1, "method": "rpc.discover"})")["result"], description);
  for (const char* none : {"[]", "{}"}) EXPECT_EQ(Rpc(Request("rpc.discover", none))["result"], description);
  for (const char* any : {"[1]", R"({"a": 1})"}) EXPECT_EQ(Rpc(Request("rpc.discover", any))["error"]["code"], -32602);
  EXPECT_EQ(BodyOf(Get("/openrpc.json")), ToLine(description) + "\n");
}

TEST_F(RpcTest, AnAdmittedOriginMayAskFromItsPages) {
  RpcServer server(TheModule(), "secret", {"http://desk.example:3000"});
  const int port = server.Start(0);
  const std::string origin = local + "Origin: http://desk.example:3000\r\n";
  const std::string asked = Exchange(
      port, "OPTIONS /rpc HTTP/1.1\r\n" + origin + "Access-Control-Request-Method: POST\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(asked.substr(0, 12), "HTTP/1.1 204");
  EXPECT_NE(asked.find("Access-Control-Allow-Methods: POST\r\n"), std::string::npos) << asked;
  const std::string answer = Exchange(port, Post(origin + json));
  EXPECT_NE(answer.find("Access-Control-Allow-Origin: http://desk.example:3000\r\n"), std::string::npos) << answer;
}

TEST_F(RpcTest, WhatIsNoCallHasItsHttpStatus) {
  const std::string head = local + json;
  const std::string chunks = "48\r\n" + std::string(kStatus) + "\r\n0\r\n\r\n";
  const std::string megabyte(1 << 20, ' ');
  const std::string coded = head + "Transfer-Encoding: chunked\r\nX-No-Content-Length: 1\r\n";
  const std::pair<std::string, int> cases[] = {
      {Post(coded, chunks), 200},
      {Post("hOST: LocalHost:1\r\nConnection: close\r\ncontent-TYPE: Application/JSON; charset=utf-8\r\n"), 200},
      {"GET http://localhost/openrpc.json HTTP/1.1\r\n" + local + "\r\n", 200},
      {Post(head + "Origin: http://localhost\r\nOrigin-Trial: 1\r\nEmpty:\r\n"), 200},
      {Post(head + "Host: localhost\r\n"), 400},
      {Post(head + "Content-Length: 72\r\nContent-Length: 72\r\n"), 400},
      {Post(head + "Authorization: a\r\nauthorization: b\r\n"), 400},
      {Post(coded + "Content-Length: 72\r\n", chunks), 400},
      {Post(head + "Content-Length : 72\r\n"), 400},
      {Post(head + "Content-Length:\r\n 72\r\n"), 400},
      {Post(head + "Or: http://localhost\r\n\tigin\r\n"), 400},
      {Post(head + "X(Y: 1\r\n"), 400},
      {Post(head + "X: a\rContent-Length: 72\r\n"), 400},
      {Post(head + "Transfer-Encoding: \r\n"), 501},
      {Post(head + "Content-Length: 7f\r\n"), 400},
      {Post(coded, "5;" + megabyte), 400},
      {Post("Connection: close\r\n" + json), 403},
      {Post("Host: desk.example\r\nConnection: close\r\n" + json), 403},
      {Post("Host: localhost:evil\r\nConnection: close\r\n" + json), 403},
      {Post(head + "Origin: http://localhost:1\r\n"), 403},
      {Post(head + "Origin: null\r\n"), 403},
      {"GET /nothing HTTP/1.1\r\n" + local + "\r\n", 404},
      {"GET /nothing HTTP/1.1\r\n" + local + "Origin: http://desk.example\r\n\r\n", 403},
      {"HEAD /rpc HTTP/1.1\r\n" + local + "\r\n", 405},
      {"OPTIONS /rpc HTTP/1.1\r\n" + local + "\r\n", 405},
      {Post(head, " " + megabyte), 413},
      {Post(coded, "100001\r\n " + megabyte + "\r\n0\r\n\r\n"), 413},
      {Post(head + "Expect: 100-continue\r\nContent-Length: 1048577\r\n", ""), 413},
      {Post(head + "Content-Length: 99999999999999999999999\r\n"), 413},
      {Post(local + "Content-Type: text/plain\r\n"), 415},
      {Post(head + "Content-Encoding: gzip\r\n"), 415},
      {Post(head + "X: " + std::string(16 << 10, 'x') + "\r\n"), 431},
      {Post(head + "X: " + megabyte + "\r\n"), 431},
      {Post(head + "Transfer-Encoding: gzip, chunked\r\nX-No-Content-Length: 1\r\n", chunks), 501},
  };
  for (const auto& [request, status] : cases) {
    const std::string answer = Exchange(port_, request);
    EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 " + std::to_string(status)) << request.substr(0, 300);
    EXPECT_EQ(status == 405, answer.find("Allow: POST\r\n") != std::string::npos) << answer;
  }
}

TEST_F(RpcTest, PipelinedRequestsAreAnsweredInOrderWhenNoMoreCome) {
  std::string requests;
  std::string ids;
  for (int id = 1; id <= 7; ++id) {
    std::string call = kStatus;
    requests += Post("Host: localhost\r\n" + json, call.replace(call.find("1,"), 1, std::to_string(id)));
    ids += std::to_string(id);
  }
  std::deque<Peer> peers;
  for (int peer = 0; peer < 16; ++peer) peers.emplace_back(port_).SendLast(requests + "GET /nothing HTTP/1.1\r\n\r\n");
  for (const Peer& peer : peers) {
    const std::string answers = peer.Receive();
    std::string answered;
    for (size_t at = 0; (at = answers.find("{\"id\":", at)) != std::string::npos; ++at) answered += answers[at + 6];
    EXPECT_EQ(answered, ids);
    EXPECT_NE(answers.find("HTTP/1.1 4"), std::string::npos);
  }
}

TEST_F(RpcTest, ARequestUnderWayIsAnsweredBeforeTheEnd) {
  auto server = std::make_unique<RpcServer>(TheModule(), "secret");
  const Peer peer(server->Start(0));
  const std::string whole = Post("Host: localhost\r\nExpect: 100-continue\r\n" + json);
  peer.Send(whole.substr(0, whole.find('{')));
  EXPECT_NE(peer.Receive("\r\n\r\n").find("HTTP/1.1 100"), std::string::npos) << "its head has come";
  const auto end = std::async(std::launch::async, [&server] { server.reset(); });
  peer.Send(whole.substr(whole.find('{')));
  EXPECT_NE(peer.Receive().find("\"result\""), std::string::npos);
}

TEST_F(RpcTest, HalfARequestOfAClientThatIsGoneHoldsNothing) {
  const std::string whole = Post("Host: localhost\r\n" + json);
  for (const size_t size : {whole.size() / 4, whole.size() - 1}) EXPECT_EQ(Exchange(port_, whole.substr(0, size)), "");
}

TEST_F(RpcTest, TheBodyOfARefusedRequestIsNoRequest) {
  const std::string hidden = Post(local + json);
  EXPECT_NE(Exchange(port_, hidden).find("\"result\""), std::string::npos) << "by itself it is one";
  for (const char* head : {"GET /rpc HTTP/1.1\r\n", "POST /rpc HTTP/1.1\r\nTransfer-Encoding: chunked\r\n",
                           "POST /rpc HTTP/1.1\r\nContent-Type: multipart/form-data\r\n"}) {
    const std::string length = "Content-Length: " + std::to_string(hidden.size()) + "\r\n\r\n";
    const std::string answer = Exchange(port_, head + local + length + hidden);
    EXPECT_EQ(answer.rfind("HTTP/1.1 4", 0), 0u) << answer;
    EXPECT_EQ(answer.find("\"result\""), std::string::npos) << answer;
  }
}

}  // namespace
}  // namespace desk
