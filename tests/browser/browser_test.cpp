// The console in a real browser, with real clicks and keys, against a served device.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <regex>

#include "devkit/device/files.h"
#include "tests/browser/browser.h"

namespace desk {
namespace {

constexpr char kSet[] = "VEXA.Core.TunnelBridge/2/set";
constexpr char kSetAlias[] = "VEXA.Core.TunnelBridge/2/set_server_alias";
constexpr char kGet[] = "VEXA.Core.TunnelBridge/2/get";
constexpr char kConf[] = "/usr/vexa/etc/vexarelayd/vexarelayd.conf";

/// A served device, and where it says that it is.
struct Server {
  Server(const std::string& root, const std::string& wanted_port)
      : program({HOST_PROGRAM, "serve", "--root", root, "--port", wanted_port}, {{log.write, STDERR_FILENO}}) {
    const std::string text = Reader(log.read).Until("Ctrl-C ends it.");
    std::smatch parts;
    if (!std::regex_search(text, parts, std::regex("(http://127.0.0.1:([0-9]+)/)#token=(\\w+)"))) {
      throw std::runtime_error("no address in: " + text);
    }
    address = parts[1];
    port = parts[2];
    token = parts[3];
  }

  Pipe log;
  Program program;
  std::string address;
  std::string port;
  std::string token;
};

class BrowserTest : public testing::Test {
 protected:
  BrowserTest() {
    if (mkdtemp(folder_.data()) == nullptr) throw std::runtime_error("no temporary folder");
    Serve("0");
    browser = std::make_unique<Browser>(folder_ + "/profile");
  }
  ~BrowserTest() override {
    browser.reset();
    server.reset();
    // The browser's own helpers end a little later than it does, and write to the last.
    std::error_code error;
    for (int attempt = 0; attempt < 1000 && std::filesystem::exists(folder_); ++attempt) {
      std::filesystem::remove_all(folder_, error);
    }
  }
  void TearDown() override { EXPECT_EQ(browser->complaints, std::vector<std::string>()); }

  void Serve(const std::string& port) { server = std::make_unique<Server>(folder_ + "/root", port); }
  void Open() {
    browser->Open(server->address + "#token=" + server->token);
    ASSERT_TRUE(browser->Holds("document.querySelectorAll('#files button').length")) << Text("#status");
  }
  std::string Text(const std::string& selector) {
    return browser->Evaluate("document.querySelector(" + Quote(selector) + ")?.innerText ?? ''").asString();
  }
  bool Shows(const std::string& selector, const std::string& text) {
    return browser->Holds("document.querySelector(" + Quote(selector) + ")?.innerText.includes(" + Quote(text) + ")");
  }
  /// Makes the call and gives the code that is shown for it, when its trace is shown too.
  std::string Call() {
    const std::string newest = "(document.querySelector('#history button')?.innerText ?? '')";
    const std::string before = browser->Evaluate(newest).asString();
    browser->Click("#call");
    EXPECT_TRUE(browser->Holds(newest + " !== " + Quote(before))) << Text("#status");
    EXPECT_TRUE(browser->Holds("document.querySelector('#trace [data-op^=APIResponse]')"));
    return Text("#answer .code");
  }
  std::string SwitchTo(const std::string& enabled) {
    browser->Choose("#method", kSet);
    browser->Choose("#param-enabled", enabled);
    return Call();
  }
  std::string SetAlias() {
    browser->Choose("#method", kSetAlias);
    browser->Fill("#param-server_alias", "lab");
    return Call();
  }
  /// Complaints that belong to what the test does.
  void Forgive(const std::string& complaint) {
    auto& all = browser->complaints;
    all.erase(std::remove_if(all.begin(), all.end(), [&](const std::string& one) { return one.find(complaint) == 0; }),
              all.end());
  }

  std::string folder_ = std::filesystem::temp_directory_path() / "desk-browser-XXXXXX";
  std::unique_ptr<Server> server;
  std::unique_ptr<Browser> browser;
};

TEST_F(BrowserTest, RegistersAnAliasAndSwitchesOn) {
  Open();
  EXPECT_EQ(SetAlias(), "success");
  EXPECT_EQ(SwitchTo("true"), "success");
  browser->Choose("#method", kGet);
  EXPECT_EQ(Call(), "success");
  EXPECT_TRUE(Shows("#answer", "\"enabled\": true"));
  EXPECT_TRUE(Shows("#control-state", "lab"));
}

TEST_F(BrowserTest, AnOrdinaryUserIsRefused) {
  Open();
  browser->Choose("#as", "user");
  EXPECT_EQ(SwitchTo("true"), "105");
  EXPECT_TRUE(Shows("#answer .remedy", "Call as an administrator"));
}

TEST_F(BrowserTest, AnOperationFailsFromItsLineOfTheTrace) {
  Open();
  SetAlias();
  EXPECT_EQ(SwitchTo("true"), "success");
  browser->Click("#trace [data-op=VLIBServiceStart] .fail");
  browser->Choose("#fail-kind", "fail");
  browser->Choose("#fail-when", "once");
  browser->Click("#fail-add");
  EXPECT_TRUE(Shows("#faults", "VLIBServiceStart=fail@1"));
  EXPECT_EQ(SwitchTo("false"), "success");
  EXPECT_EQ(SwitchTo("true"), "2900");
  EXPECT_TRUE(Shows("#answer .log", "utils:172 call VLIBServiceStart() vexarelayd error"));
  EXPECT_NE(Text("#answer .remedy"), "");
  EXPECT_TRUE(browser->Holds("document.querySelector('#trace .injected[data-op=VLIBServiceStart]')"));
  EXPECT_EQ(SwitchTo("true"), "success") << "it failed once";
  browser->Click("#faults .remove");
  EXPECT_TRUE(browser->Holds("!document.querySelector('#faults .remove')"));
}

TEST_F(BrowserTest, ABrokenFileIsMovedAsideAndPutBack) {
  Open();
  browser->Click("#files [data-path=\"" + std::string(kConf) + "\"]");
  browser->Fill("#file-text", "{");
  EXPECT_TRUE(browser->Holds("!document.getElementById('file-dirty').hidden"));
  browser->Click("#file-save");
  EXPECT_TRUE(browser->Holds("document.getElementById('file-dirty').hidden"));
  browser->Choose("#method", "VEXA.Core.TunnelBridge/1/get");
  EXPECT_EQ(Call(), "2900");
  EXPECT_TRUE(browser->Holds("document.querySelector('#files [data-path=\"" + std::string(kConf) + ".bad\"]')"));
  EXPECT_TRUE(browser->dialogs.empty());
  browser->Click("#reset-all");
  EXPECT_TRUE(browser->Holds("!document.querySelector('#files [data-path=\"" + std::string(kConf) + ".bad\"]')"));
  EXPECT_EQ(Call(), "success");
  EXPECT_NE(browser->dialogs.front().find("Destroy all files, faults and what the control server knows"),
            std::string::npos);
}

TEST_F(BrowserTest, AFileOfOthersIsShownAsItStands) {
  const std::string file = folder_ + "/root/etc/other";
  ASSERT_TRUE(StoreText(file, "one\r\ntwo\r\n"));
  Open();
  browser->Click("#files [data-path='/etc/other']");
  EXPECT_TRUE(browser->Holds("document.getElementById('file-text').value === 'one\\ntwo\\n'"));
  EXPECT_TRUE(browser->Evaluate("document.getElementById('file-dirty').hidden").asBool());
  browser->Fill("#file-text", "three");
  browser->Click("#file-save");
  EXPECT_TRUE(browser->Holds("document.getElementById('file-dirty').hidden"));
  EXPECT_TRUE(browser->dialogs.empty()) << browser->dialogs.front();
  ASSERT_TRUE(StoreText(file, "\xff"));
  EXPECT_TRUE(Shows("#status", "no UTF-8 text"));
  browser->Choose("#method", kGet);
  EXPECT_EQ(Call(), "success");
}

TEST_F(BrowserTest, AWrongTokenIsSaidAndAnotherOneTaken) {
  browser->Open(server->address + "#token=wrong");
  EXPECT_TRUE(Shows("#status", "oken"));
  browser->Fill("#token", server->token);
  browser->Click("#token-save");
  EXPECT_TRUE(browser->Holds("document.querySelectorAll('#files button').length")) << Text("#status");
  Forgive("Failed to load resource");
}

TEST_F(BrowserTest, AServerThatIsGoneIsSaidAndFoundAgain) {
  Open();
  const std::string port = server->port;
  server.reset();
  EXPECT_TRUE(Shows("#status", "answer"));
  Serve(port);
  EXPECT_TRUE(browser->Holds("!document.getElementById('token-form').hidden")) << Text("#status");
  browser->Fill("#token", server->token);
  browser->Click("#token-save");
  browser->Choose("#method", kGet);
  EXPECT_EQ(Call(), "success");
  Forgive("Failed to load resource");
}

TEST_F(BrowserTest, TheKeyboardAloneMakesACall) {
  Open();
  unsigned steps = 0;
  while (browser->Evaluate("document.activeElement.id") != "call" && steps < 50) {
    browser->Press("Tab", 9);
    ++steps;
  }
  EXPECT_LT(steps, 50u);
  browser->Press("Enter", 13, "\r");
  EXPECT_TRUE(Shows("#answer .code", "success"));
}

/// From the click to the trace of the call, with a hundred thousand lines written before.
TEST_F(BrowserTest, ALongTraceDelaysNoAnswer) {
  Open();
  const std::string lines = browser
                                ->Evaluate(R"js((async () => {
    const one = {jsonrpc: '2.0', id: 1, method: 'VEXA.Core.TunnelBridge/1/get'};
    const headers = {'Content-Type': 'application/json', Authorization: `Bearer ${sessionStorage.getItem(Object.keys(sessionStorage)[0])}`};
    const post = (body) => fetch('/rpc', {method: 'POST', headers, body: JSON.stringify(body)}).then(answer => answer.json());
    let lines = 0;
    for (let batch = 0; batch < 200 && lines < 100000; ++batch) {
      await post(Array(100).fill(one));
      lines = (await post({jsonrpc: '2.0', id: 1, method: 'desk.trace', params: {after: Number.MAX_SAFE_INTEGER, limit: 1}})).result.next;
    }
    return lines; })())js")
                                .asString();
  EXPECT_GE(std::stoul(lines), 100000u);
  browser->Evaluate(
      R"js(document.getElementById('call').addEventListener('click', () => { window.calledAt = performance.now(); });
    new MutationObserver(() => { window.shownAt = performance.now(); })
      .observe(document.getElementById('trace'), {childList: true}))js");
  browser->Choose("#method", kGet);
  EXPECT_EQ(Call(), "success");
  const double delay = browser->Evaluate("window.shownAt - window.calledAt").asDouble();
  RecordProperty("milliseconds", std::to_string(delay));
  EXPECT_LE(delay, 200);
  EXPECT_LE(browser->Evaluate("document.querySelectorAll('#history button').length").asUInt(), 100u);
}

/// In light and dark, wide and narrow; leaves screenshots where the environment asks for them.
TEST_F(BrowserTest, CanBeReadByEverybody) {
  Open();
  SetAlias();
  browser->Choose("#as", "user");  // whose command has no token
  const auto axe = LoadText(AXE_FILE);
  ASSERT_TRUE(axe) << "no " AXE_FILE "; script/test --browser fetches it";
  browser->Evaluate(*axe + "; true");
  const char* folder = getenv("CONSOLE_SCREENSHOTS");
  for (const std::string scheme : {"light", "dark"}) {
    Json::Value media;
    media["features"][0]["name"] = "prefers-color-scheme";
    media["features"][0]["value"] = scheme;
    browser->Command("Emulation.setEmulatedMedia", media);
    for (const int width : {1280, 360}) {
      Json::Value screen;
      screen["width"] = width;
      screen["height"] = 800;
      screen["deviceScaleFactor"] = 1;
      screen["mobile"] = false;
      browser->Command("Emulation.setDeviceMetricsOverride", screen);
      const Json::Value found = browser->Evaluate("axe.run().then(found => found.violations.map(one => one.id))");
      EXPECT_EQ(found, Json::Value(Json::arrayValue)) << scheme << width;
      EXPECT_LE(browser->Evaluate("document.documentElement.scrollWidth").asInt(), width);
      browser->Evaluate("scrollTo(0, 0)");
      if (folder != nullptr) {
        browser->Screenshot(std::filesystem::path(folder) /
                            ("console-" + scheme + "-" + std::to_string(width) + ".webp"));
      }
    }
  }
}

}  // namespace
}  // namespace desk
