#include "tests/browser/browser.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <stdexcept>

#include "devkit/device/device.h"

namespace desk {
namespace {

constexpr auto kPatience = std::chrono::seconds(30);
/// Beyond the numbers that a program is handed.
constexpr int kFirstNumber = 10;

Json::Value Object(const std::string& member, const Json::Value& value) {
  Json::Value object;
  object[member] = value;
  return object;
}

}  // namespace

Program::Program(const std::vector<std::string>& words, const std::vector<std::pair<int, int>>& descriptors) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const auto& [own, number] : descriptors) posix_spawn_file_actions_adddup2(&actions, own, number);
  const int error = posix_spawnp(&process_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + words[0]);
}

Program::~Program() {
  kill(process_, SIGTERM);
  waitpid(process_, nullptr, 0);
}

Pipe::Pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("there is no pipe to be had");
  read = fcntl(ends[0], F_DUPFD_CLOEXEC, kFirstNumber);
  write = fcntl(ends[1], F_DUPFD_CLOEXEC, kFirstNumber);
  close(ends[0]);
  close(ends[1]);
}

Pipe::~Pipe() {
  close(read);
  close(write);
}

std::string Reader::Until(const std::string& end) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  size_t at = 0;
  while ((at = buffer_.find(end)) == std::string::npos) {
    const auto left = deadline - std::chrono::steady_clock::now();
    pollfd wait{file_, POLLIN, 0};
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
    char data[65536];
    const bool ready = milliseconds > 0 && poll(&wait, 1, static_cast<int>(milliseconds)) == 1;
    const ssize_t size = ready ? ::read(file_, data, sizeof(data)) : 0;
    if (size <= 0) throw std::runtime_error("nothing came after: " + buffer_.substr(0, 1000));
    buffer_.append(data, static_cast<size_t>(size));
  }
  const std::string text = buffer_.substr(0, at);
  buffer_.erase(0, at + end.size());
  return text;
}

Browser::Browser(const std::filesystem::path& folder)
    : program_({"sh", "-c", "exec \"$@\" 2>/dev/null", "sh", "chromium-headless-shell", "--no-sandbox", "--disable-gpu",
                "--no-first-run", "--disable-background-networking", "--disable-component-update",
                "--remote-debugging-pipe", "--user-data-dir=" + folder.string()},
               {{commands_.read, 3}, {answers_.write, 4}}),
      reader_(answers_.read) {
  const Json::Value target = Command("Target.createTarget", Object("url", "about:blank"));
  Json::Value attach = Object("targetId", target["targetId"]);
  attach["flatten"] = true;
  session_ = Command("Target.attachToTarget", attach)["sessionId"].asString();
  for (const char* domain : {"Page", "Runtime", "Log", "Network"}) Command(std::string(domain) + ".enable");
}

void Browser::Send(int id, const std::string& method, const Json::Value& params) {
  Json::Value message;
  message["id"] = id;
  message["method"] = method;
  message["params"] = params;
  if (!session_.empty()) message["sessionId"] = session_;
  const std::string text = ToLine(message) + '\0';
  for (size_t done = 0; done < text.size();) {
    const ssize_t size = write(commands_.write, text.data() + done, text.size() - done);
    if (size <= 0) throw std::runtime_error("the browser takes no commands");
    done += static_cast<size_t>(size);
  }
}

void Browser::Notice(const Json::Value& event) {
  const std::string method = event["method"].asString();
  const Json::Value& params = event["params"];
  if (method == "Page.javascriptDialogOpening") {
    dialogs.push_back(params["message"].asString());
    Send(0, "Page.handleJavaScriptDialog", Object("accept", true));
  }
  const std::string address = params["request"]["url"].asString();
  const bool leaves = method == "Network.requestWillBeSent" && address.rfind("http://127.0.0.1:", 0) != 0 &&
                      address.rfind("data:", 0) != 0;
  if (leaves) complaints.push_back("request to " + address);
  if (method == "Log.entryAdded") complaints.push_back(params["entry"]["text"].asString());
  if (method == "Runtime.consoleAPICalled" || method == "Runtime.exceptionThrown") complaints.push_back(ToLine(params));
}

Json::Value Browser::Command(const std::string& method, const Json::Value& params) {
  const int id = ++last_id_;
  Send(id, method, params);
  while (true) {
    Json::Value message;
    std::string problem;
    ParseJson(reader_.Until(std::string(1, '\0')), message, problem);
    if (message["id"] != id) {
      Notice(message);
      continue;
    }
    if (message.isMember("error")) throw std::runtime_error(method + ": " + ToLine(message["error"]));
    return message["result"];
  }
}

Json::Value Browser::Evaluate(const std::string& expression) {
  Json::Value params = Object("expression", expression);
  params["returnByValue"] = true;
  params["awaitPromise"] = true;
  const Json::Value result = Command("Runtime.evaluate", params);
  if (result.isMember("exceptionDetails")) throw std::runtime_error(ToLine(result["exceptionDetails"]));
  return result["result"]["value"];
}

bool Browser::Holds(const std::string& condition) {
  return Evaluate("new Promise(done => { const end = Date.now() + 10000; const look = () => { const holds = !!(" +
                  condition + "); if (holds || Date.now() > end) done(holds); else setTimeout(look, 10); }; look(); })")
      .asBool();
}

void Browser::Open(const std::string& address) {
  // The same page with another fragment would only be told of that.
  Command("Page.navigate", Object("url", "about:blank"));
  Command("Page.navigate", Object("url", address));
  if (!Holds("document.readyState === 'complete'")) throw std::runtime_error("the page does not load");
}

void Browser::Click(const std::string& selector) {
  const std::string element = "document.querySelector(" + Quote(selector) + ")";
  if (!Holds(element + " && !" + element + ".matches(':disabled')")) {
    throw std::runtime_error("cannot be clicked: " + selector);
  }
  const Json::Value place = Evaluate("(() => { const element = " + element +
                                     "; element.scrollIntoView({block: 'center', behavior: 'instant'});"
                                     " const box = element.getBoundingClientRect();"
                                     " return {x: box.x + box.width / 2, y: box.y + box.height / 2}; })()");
  for (const char* type : {"mousePressed", "mouseReleased"}) {
    Json::Value event = place;
    event["type"] = type;
    event["button"] = "left";
    event["clickCount"] = 1;
    Command("Input.dispatchMouseEvent", event);
  }
}

void Browser::Press(const std::string& key, int code, const std::string& text, int modifiers) {
  for (const char* type : {"keyDown", "keyUp"}) {
    Json::Value event = Object("type", type);
    event["key"] = event["code"] = key;
    event["windowsVirtualKeyCode"] = code;
    event["modifiers"] = modifiers;
    if (!text.empty() && type == std::string("keyDown")) event["text"] = text;
    Command("Input.dispatchKeyEvent", event);
  }
}

void Browser::Fill(const std::string& selector, const std::string& text) {
  Click(selector);
  Evaluate("document.activeElement.select()");
  Command("Input.insertText", Object("text", text));
}

void Browser::Choose(const std::string& selector, const std::string& value) {
  const std::string element = "document.querySelector(" + Quote(selector) + ")";
  if (!Holds(element + " && [..." + element + ".options].some(option => option.value === " + Quote(value) + ")")) {
    throw std::runtime_error("there is no choice " + value + " in " + selector);
  }
  Evaluate(element + ".focus()");
  Press("Home", 36);
  const unsigned most = Evaluate(element + ".options.length").asUInt();
  for (unsigned step = 0; step < most && Evaluate(element + ".value") != value; ++step) Press("ArrowDown", 40);
  if (Evaluate(element + ".value") != value) throw std::runtime_error("cannot be chosen: " + value);
}

void Browser::Screenshot(const std::filesystem::path& file) {
  Json::Value format = Object("format", "webp");
  format["quality"] = 50;
  const std::string text = Command("Page.captureScreenshot", format)["data"].asString();
  std::vector<unsigned char> image(text.size());
  const int size =
      EVP_DecodeBlock(image.data(), reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(image.data()), size);
}

std::string Quote(const std::string& text) { return ToLine(text); }

}  // namespace desk
