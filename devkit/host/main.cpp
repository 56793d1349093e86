#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <random>

#include "devkit/check/check.h"
#include "devkit/control_server/control_server.h"
#include "devkit/device/device.h"
#include "devkit/device/new_device.h"
#include "devkit/device/operations.h"
#include "devkit/host/rpc_server.h"
#include "devkit/host/trace_file.h"
#include "devkit/webapi/description.h"
#include "devkit/webapi/module.h"

namespace {

namespace fs = std::filesystem;

enum ExitCode : int { kDone = 0, kErrorAnswer = 1, kUsage = 2, kModuleFailed = 3 };

/// The module beside the program, as built, or else in lib/tunnelbridge/ beside the program's folder, as installed.
std::string DefaultModule() {
  constexpr char kName[] = "VEXA.Core.TunnelBridge.so";
  const fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path beside = folder / kName;
  return fs::exists(beside) ? beside : folder.parent_path() / "lib/tunnelbridge" / kName;
}

struct Options {
  std::string root = "desk-device";
  std::string module = DefaultModule();
  std::string trace;
  std::vector<std::string> faults;
  std::vector<std::string> origins;
  std::string caller = "admin";
  int control_port = 0;
  int port = 8480;
  std::string api;
  int version = 0;
  std::string method;
  std::string params = "{}";
  desk::CheckOptions check;
  std::string subject = "-";
  bool json = false;
};

/// The device, its control server unless another is named, and its trace.
struct Desk {
  explicit Desk(const Options& options) : device(options.root), trace(device, options.trace) {
    for (const std::string& fault : options.faults) device.faults.Add(fault);
    device.control_port = options.control_port;
    if (options.control_port != 0) return;
    control_server.emplace(device.Root() / "desk/control-server");
    device.control_port = control_server->Start();
  }

  desk::Device device;
  desk::TraceWriter trace;
  std::optional<desk::ControlServer> control_server;
};

/// Prepares for a long run: threads that start from now on leave the signals that end a server to `WaitForEnd`.
sigset_t HoldSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // the trace's reader may leave
  return signals;
}

/// After the signal, clients have a few seconds to finish what they send; a second signal ends the program at once.
int WaitForEnd(const sigset_t& signals) {
  constexpr unsigned kPatienceSeconds = 10;
  int signal = 0;
  sigwait(&signals, &signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  std::signal(SIGALRM, [](int) { _exit(kDone); });
  alarm(kPatienceSeconds);
  return kDone;
}

int List(const Options& options) {
  const desk::Module module(options.module);
  for (const APITableEntry& row : module.Rows()) {
    const char* method = row.method == nullptr ? "" : row.method;
    const Json::Value line = desk::Object({{"api", row.api}, {"version", row.version}, {"method", method}});
    std::cout << desk::ToLine(line) << '\n';
  }
  return kDone;
}

Json::Value ParseParams(const std::string& text) {
  std::string problem;
  const auto params = desk::TryParseJson(text, &problem);
  if (!params) throw std::runtime_error("the parameters are no JSON: " + problem);
  if (!params->isObject()) throw std::runtime_error("the parameters are no JSON object");
  return *params;
}

int Call(const Options& options) {
  const Json::Value params = ParseParams(options.params);
  const desk::Module module(options.module);
  const std::string name = options.api + '/' + std::to_string(options.version) + '/' + options.method;
  const APIHandler handler = module.Find(name);
  if (handler == nullptr) throw std::runtime_error("the module has no such method; `webapi-host list` shows all");

  Desk desk(options);
  const desk::Outcome outcome = desk::Call(handler, params, options.caller == "admin", name);
  for (const std::string& fault : desk.device.faults.Unmet()) {
    std::cerr << "webapi-host: the fault '" << fault << "' met no call\n";
  }
  if (!outcome.Problem().empty()) {
    std::cerr << "webapi-host: " << options.method << ' ' << outcome.Problem() << '\n';
    return kModuleFailed;
  }
  const desk::Answer& answer = outcome.answers.front();
  Json::Value line = desk::Object({{"success", answer.success}, {"data", answer.data}});
  if (!answer.success) {
    line["code"] = answer.code;
    std::cerr << "webapi-host: " << desk::CodeText(answer.code) << '\n';
  }
  std::cout << desk::ToLine(line) << '\n';
  return answer.success ? kDone : kErrorAnswer;
}

void Store(const fs::path& file, const std::string& text) {
  const desk::FolderLock lock(desk::Device::Get().Root());
  if (!desk::StoreText(file, text + "\n")) throw std::runtime_error("cannot write '" + file.string() + "'");
}

/// Holds the device until the program ends: two servers would take each other's token and port.
void Claim(const fs::path& root) {
  const int file = open((root / "desk/serving").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (file >= 0 && flock(file, LOCK_EX | LOCK_NB) == 0) return;
  const std::string reason = errno == EWOULDBLOCK ? "it is being served already" : std::strerror(errno);
  throw std::runtime_error("the device in '" + root.string() + "' cannot be had: " + reason + "; take another --root");
}

int Serve(Options options) {
  const sigset_t signals = HoldSignals();
  const desk::Module module(options.module);
  if (options.trace.empty()) options.trace = (fs::path(options.root) / "desk/trace.jsonl").string();
  Desk desk(options);
  Claim(desk.device.Root());
  const std::string token = desk::RandomHex(16);
  desk::RpcServer server(module, token, options.origins);
  const int port = server.Start(options.port);
  desk.device.trace.Own("admin token", desk::Object({{"token", token}}));
  Store(desk.device.Root() / "desk/admin-token", token);
  if (desk.control_server) {
    Store(desk.device.Root() / "desk/control-server/port", std::to_string(desk.device.control_port));
  }
  std::cerr << "webapi-host: serving http://127.0.0.1:" << port << "/rpc for the device in " << desk.device.Root()
            << "\nwebapi-host: control server: 127.0.0.1:" << desk.device.control_port
            << "\nwebapi-host: trace:          " << options.trace << "\nwebapi-host: admin token:    " << token
            << "\nwebapi-host: console:        http://127.0.0.1:" << port << "/#token=" << token
            << "\nwebapi-host: Ctrl-C ends it." << std::endl;
  return WaitForEnd(signals);
}

int ServeControl(const Options& options) {
  const sigset_t signals = HoldSignals();
  desk::ControlServer server(options.root);
  const int port = server.Start(options.port);
  std::cerr << "webapi-host: control server on 127.0.0.1:" << port << ", state in " << options.root
            << "\nwebapi-host: Ctrl-C ends it." << std::endl;
  return WaitForEnd(signals);
}

int ListFaults() {
  for (const Json::Value& operation : desk::ListOperations()) std::cout << desk::ToLine(operation) << '\n';
  return kDone;
}

int ShowTrace(const Options& options) {
  std::ifstream file(options.subject);
  if (options.subject != "-" && !file) {
    throw std::runtime_error("cannot read '" + options.subject + "': " + std::strerror(errno));
  }
  std::istream& trace = options.subject == "-" ? std::cin : file;
  const bool any = (options.json ? desk::PrintTraceEvents : desk::PrintTrace)(trace, std::cout);
  if (!any) std::cerr << "webapi-host: '" << options.subject << "' holds no trace\n";
  return any ? kDone : kErrorAnswer;
}

int Describe(const Options& options) {
  const desk::Module module(options.module);
  std::cout << desk::Describe(module).toStyledString();
  return kDone;
}

void PrintAdvice(const Json::Value& explanation) {
  std::cout << "  cause:  " << explanation["cause"].asString() << '\n'
            << "  remedy: " << explanation["remedy"].asString() << '\n';
}

/// Passes the log on, with advice after each line of the module's.
int ExplainLog(bool json) {
  bool known = false;
  for (std::string text; std::getline(std::cin, text);) {
    Json::Value explanation = desk::FindLogLine(text);
    known = known || !explanation.isNull();
    explanation["line"] = text;
    std::cout << (json ? desk::ToLine(explanation) : text) << '\n';
    if (!json && explanation.isMember("cause")) PrintAdvice(explanation);
  }
  if (std::ferror(stdin) != 0)
    throw std::runtime_error(std::string("standard input cannot be read: ") + std::strerror(errno));
  if (!known) std::cerr << "webapi-host: no line of the log is the module's\n";
  return known ? kDone : kErrorAnswer;
}

int Explain(const Options& options) {
  if (options.subject == "-") return ExplainLog(options.json);
  const Json::Value& explanations = desk::Explanations(options.subject);
  for (const Json::Value& explanation : explanations) {
    if (options.json) {
      std::cout << desk::ToLine(explanation) << '\n';
      continue;
    }
    std::cout << explanation["subject"].asString() << "  " << explanation["text"].asString() << '\n';
    if (explanation.isMember("method")) std::cout << "  method: " << explanation["method"].asString() << '\n';
    PrintAdvice(explanation);
  }
  if (explanations.empty()) std::cerr << "webapi-host: nothing is known of '" << options.subject << "'\n";
  return explanations.empty() ? kErrorAnswer : kDone;
}

int Check(const Options& options) { return desk::CheckModule(options.check) ? kDone : kErrorAnswer; }

std::string FindFaultProblem(const std::string& fault) {
  try {
    desk::Faults().Add(fault);
    return "";
  } catch (const std::invalid_argument& problem) {
    return problem.what();
  }
}

std::string FindOriginProblem(const std::string& origin) {
  constexpr char kHostLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789.-:";
  for (const std::string scheme : {"http://", "https://"}) {
    const bool has_scheme = origin.rfind(scheme, 0) == 0 && origin.size() > scheme.size();
    if (has_scheme && origin.find_first_not_of(kHostLetters, scheme.size()) == std::string::npos) return "";
  }
  return "'" + origin + "' is no origin; write it as http://localhost:3000";
}

void AddDeviceOptions(CLI::App& command, Options& options) {
  command.add_option("--root", options.root, "Folder of the desk device; a missing or empty one becomes a new device")
      ->capture_default_str();
  command.add_option(
      "--trace", options.trace,
      "Append the trace to this file, - for standard error; serve takes desk/trace.jsonl of the device by default");
  command.add_option("--fault", options.faults, "Make an operation fail: OPERATION=RESULT[@N[+]]; may be repeated")
      ->check(FindFaultProblem, "")
      ->allow_extra_args(false);
  command.add_option("--control-server", options.control_port, "Loopback port of a control server that runs already")
      ->check(CLI::Range(1, 65535));
}

void AddModuleOption(CLI::App& command, Options& options) {
  command.add_option("--module", options.module, "The module to load; else the one beside the program");
}

int Run(int argc, char** argv) {
  Options options;
  CLI::App app("Loads a web-API module into a desk device and calls its methods.");
  app.set_version_flag("--version", "webapi-host " PROJECT_VERSION);
  app.require_subcommand(0, 1);

  CLI::App* list = app.add_subcommand("list", "Show the module's methods, one JSON object a line");
  AddModuleOption(*list, options);

  CLI::App* call = app.add_subcommand("call", "Call one method and show its answer");
  AddModuleOption(*call, options);
  AddDeviceOptions(*call, options);
  call->add_option("--as", options.caller, "Who calls")->check(CLI::IsMember({"admin", "user"}))->capture_default_str();
  call->add_option("api", options.api, "API name")->required();
  call->add_option("version", options.version, "API version")->required();
  call->add_option("method", options.method, "Method name")->required();
  call->add_option("params", options.params, "Parameters, a JSON object")->capture_default_str();

  CLI::App* serve = app.add_subcommand("serve", "Serve the methods as JSON-RPC 2.0 over HTTP on the loopback address");
  AddModuleOption(*serve, options);
  AddDeviceOptions(*serve, options);
  serve->add_option("--allow-origin", options.origins, "Admit web pages of this origin; may be repeated")
      ->check(FindOriginProblem, "")
      ->allow_extra_args(false);
  serve->add_option("--port", options.port, "Port; 0 for a free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();

  CLI::App* control = app.add_subcommand("control-server", "Serve a control server that several desk devices share");
  control->add_option("--root", options.root, "Folder of its state")->required();
  control->add_option("--port", options.port, "Port; 0 for a free one")->check(CLI::Range(0, 65535))->required();

  CLI::App* check = app.add_subcommand("check", "Check a module binary against the handler contract");
  options.check.seed = std::random_device()();
  check->add_option("module", options.check.module, "The module to check")->required();
  check->add_flag("--json", options.check.json, "Print one JSON object a line");
  check->add_option("--seed", options.check.seed, "Repeat the calls of an earlier run; else they are new each time");
  check->add_option("--limit", options.check.limit_seconds, "Seconds that loading the module, and each call, may take")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();

  CLI::App* faults = app.add_subcommand("faults", "List what can be made to fail, and how, one JSON object a line");

  CLI::App* trace = app.add_subcommand("trace", "Show a trace, each call with what it asked of the device");
  trace->add_option("file", options.subject, "The file of the trace, - for standard input")->required();
  trace->add_flag("--events", options.json, "Print it in the trace-event format, which viewers of profiles open");

  CLI::App* describe = app.add_subcommand("describe", "Show the OpenRPC document of the module's methods");
  AddModuleOption(*describe, options);

  CLI::App* explain = app.add_subcommand("explain", "Tell cause and remedy of an error code or a log line");
  explain->add_option("subject", options.subject,
                      "A code, a log line's UNIT:NUMBER or a unit; - or none for a log on standard input");
  explain->add_flag("--json", options.json, "Print one JSON object a line");

  app.set_help_all_flag("--help-all", "Print the help of all subcommands and exit");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& problem) {
    if (problem.get_exit_code() == 0) return app.exit(problem);
    throw std::runtime_error(std::string(problem.what()) + "; --help shows how it is used");
  }
  if (app.get_subcommands().empty()) throw std::runtime_error("no command; --help lists them");
  if (list->parsed()) return List(options);
  if (call->parsed()) return Call(options);
  if (serve->parsed()) return Serve(options);
  if (check->parsed()) return Check(options);
  if (faults->parsed()) return ListFaults();
  if (trace->parsed()) return ShowTrace(options);
  if (describe->parsed()) return Describe(options);
  if (explain->parsed()) return Explain(options);
  return ServeControl(options);
}

}  // namespace

int main(int argc, char** argv) {
  // The number of a closed standard stream would go to the next file, and what is meant for people into it.
  int file = 0;
  do file = open("/dev/null", O_RDWR);
  while (file >= 0 && file <= STDERR_FILENO);
  close(file);
  std::signal(SIGXFSZ, SIG_IGN);  // writing beyond a limit fails like writing to a full disk
  try {
    const int result = Run(argc, argv);
    if (!std::cout.flush()) throw std::runtime_error("standard output cannot be written");
    return result;
  } catch (const desk::ModuleError& problem) {
    std::cerr << "webapi-host: " << problem.what() << '\n';
    return kModuleFailed;
  } catch (const std::exception& problem) {
    std::cerr << "webapi-host: " << problem.what() << '\n';
    return kUsage;
  }
}
