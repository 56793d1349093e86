#include "devkit/check/check.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <system_error>
#include <thread>

#include "devkit/device/operation.h"
#include "devkit/webapi/module.h"

namespace desk {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kRounds = 200;
constexpr unsigned kEqualRounds = 10;
constexpr size_t kHugeBytes = 1 << 17;
/// More than a JSON parser of the device reads back.
constexpr unsigned kDeepLevels = 1500;
constexpr int kNotAdministrator = 105;
constexpr auto kPoll = std::chrono::milliseconds(1);
constexpr unsigned kThreadPolls = 100;
constexpr unsigned kMostLeftovers = 10000;
constexpr int kFirstNumber = 200;

/// Lies in memory that a child process shares with its parent, so that nothing is lost however the child ends.
struct Report {
  bool json;
  /// Where findings go: standard output, under a number that a module does not come across.
  int out;
  char subject[128] = {};
  char step[160] = {};
  char error[512] = {};
  std::atomic<unsigned> calls{0};
  unsigned rows = 0;
  bool loaded = false;
  bool finished = false;
  bool broken = false;
  unsigned checks = 0;
  unsigned failures = 0;

  void Print(const std::string& check, bool holds, const std::string& detail) {
    broken = broken || !holds;
    const Json::Value line = Object({{"subject", subject}, {"check", check}, {"ok", holds}, {"detail", detail}});
    const std::string words = (holds ? "ok    " : "FAIL  ") + std::string(subject) + "  " + check;
    Write(json ? ToLine(line) : detail.empty() ? words : words + ": " + detail);
    ++checks;
    failures += holds ? 0 : 1;
  }

  void Write(const std::string& words) const {
    const std::string line = words + "\n";
    if (write(out, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      throw std::system_error(errno, std::generic_category(), "standard output");
    }
  }
};

template <size_t Size>
void Copy(char (&field)[Size], const std::string& text) {
  field[text.copy(field, Size - 1)] = '\0';
}

/// Makes parameters, ordinary and hostile ones: every call's are a variation of those that led furthest so far.
class ParamSource {
 public:
  explicit ParamSource(unsigned seed) : random_(seed) {
    // The trace hides a secret text wherever it stands, so none may be part of an operation's name.
    std::string word;
    while (word.size() < 8) word += static_cast<char>('a' + Pick(26));
    Json::Value nested;
    for (unsigned level = 0; level < kDeepLevels; ++level) {
      Json::Value outer;
      outer.append(Json::Value()).swap(nested);
      nested.swap(outer);
    }
    values_ =
        Args(true, false, word, word, word + "@vexa.example", Json::arrayValue, Json::objectValue, Json::nullValue,
             nested, -1, 1e99, word + "\xff%s%n", word + '\0' + word, std::string(kHugeBytes, 'a'));
  }

  Json::Value Next() {
    Json::Value params = furthest_;
    for (unsigned change = Pick(2); change < 2 && !names_.empty(); ++change) {
      const std::string& name = names_[Pick(names_.size())];
      params[name] = values_[Pick(values_.size())];
      if (Pick(8) == 0) params.removeMember(name);
    }
    return params;
  }

  /// Whether the module has asked for a parameter at all.
  bool Varies() const { return !names_.empty(); }

  /// Takes the names of parameters from what the module did when it was given `params`.
  void Learn(const Json::Value& params, const std::vector<Json::Value>& trace) {
    for (const Json::Value& line : trace) {
      if (line["op"] != "APIRequest::HasParam" && line["op"] != "APIRequest::GetParam") continue;
      const std::string name = line["args"][0].asString();
      if (!name.empty() && std::find(names_.begin(), names_.end(), name) == names_.end()) names_.push_back(name);
    }
    if (trace.size() > most_operations_) furthest_ = params;
    most_operations_ = std::max(most_operations_, trace.size());
  }

 private:
  unsigned Pick(size_t count) { return static_cast<unsigned>(random_() % count); }

  std::mt19937 random_;
  Json::Value values_;
  std::vector<std::string> names_;
  Json::Value furthest_{Json::objectValue};
  size_t most_operations_ = 0;
};

/// The signal that is to end the check.
volatile std::sig_atomic_t end_signal = 0;

size_t CountEntries(const char* folder) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

/// Whether more threads than `before` run. One that has been waited for can stay listed for a moment.
bool LeftThread(size_t before) {
  unsigned poll = 0;
  while (CountEntries("/proc/self/task") > before && poll++ < kThreadPolls) std::this_thread::sleep_for(kPoll);
  return poll > kThreadPolls;
}

/// The names of the traced operations, a blank after each, without the making of configuration objects.
std::string ListOperations(const std::vector<Json::Value>& trace) {
  std::string list;
  for (const Json::Value& line : trace) {
    const std::string name = line["op"].asString();
    if (!IsConstructor(name)) list.append(name).append(" ");
  }
  return list;
}

/// Calls one method over and over and reports what breaks the contract.
class MethodCheck {
 public:
  MethodCheck(APIHandler handler, unsigned seed, Report& report) : handler_(handler), params_(seed), report_(report) {}

  void Run() {
    for (unsigned round = 0; round < (params_.Varies() ? kRounds : kEqualRounds); ++round) {
      const Json::Value params = params_.Next();
      for (const bool admin : {false, true}) CallOnce(params, admin);
    }
    const std::string thrown = std::to_string(thrown_) + " calls left with an exception, as they may";
    Conclude("guard", changing_ ? "a changing method" : "a reading method");
    Conclude("one-answer", thrown_ == 0 ? "" : thrown + ": " + first_thrown_);
    for (const char* check : {"answer-last", "data", "descriptors", "threads"}) Conclude(check, "");
  }

 private:
  void CallOnce(const Json::Value& params, bool admin) {
    Copy(report_.step, (admin ? "a call by an administrator with " : "a call by a user with ") + ToLine(params));
    ++report_.calls;
    Trace& trace = Device::Get().trace;
    trace.Clear();
    const Outcome outcome = Call(handler_, params, admin);
    Expect("descriptors", CountEntries("/proc/self/fd") == descriptors_, "other files are open than before");
    if (broken_.count("threads") == 0) Expect("threads", !LeftThread(threads_), "a thread was left behind");

    const std::vector<Json::Value> lines = trace.Lines();
    const std::string operations = ListOperations(lines);
    changing_ = changing_ || operations.find("APIRequest::IsAdmin") != std::string::npos;
    if (changing_) CheckGuard(outcome, operations, admin);
    CheckAnswer(outcome, operations);
    if (admin) params_.Learn(params, lines);
  }

  void CheckGuard(const Outcome& outcome, const std::string& operations, bool admin) {
    const size_t again = operations.find("APIRequest::IsAdmin APIResponse::");
    Expect("guard", operations.rfind("APIRequest::IsAdmin ", 0) == 0, "IsAdmin was not asked first");
    Expect("guard", outcome.answers.empty() || (again != std::string::npos && again > 0),
           "IsAdmin was not asked again right before the answer");
    if (admin) return;
    const bool denied = !outcome.answers.empty() && outcome.answers.front().code == kNotAdministrator;
    Expect("guard", denied, "the answer was not 105");
    Expect("guard", operations == "APIRequest::IsAdmin APIRequest::IsAdmin APIResponse::SetError ",
           "the platform was asked for more than IsAdmin");
  }

  void CheckAnswer(const Outcome& outcome, const std::string& operations) {
    const size_t count = outcome.answers.size();
    if (outcome.thrown && thrown_++ == 0) first_thrown_ = *outcome.thrown;
    Expect("one-answer", count == (outcome.thrown ? 0 : 1),
           std::to_string(count) + " answers" + (outcome.thrown ? " and an exception" : ""));
    for (const Answer& answer : outcome.answers) {
      const bool null = !answer.success || changing_;
      Expect("data", null ? answer.data.isNull() : answer.data.isObject(),
             null ? "the answer's data was not null" : "the payload was no object");
    }
    const size_t later = operations.find("APIRequest::", operations.find("APIResponse::"));
    Expect("answer-last", later == std::string::npos, "the framework was asked after the answer");
  }

  /// Reports the first time that a check does not hold.
  void Expect(const std::string& check, bool holds, const std::string& problem) {
    if (!holds && broken_.insert(check).second) report_.Print(check, false, problem + ", in " + report_.step);
  }

  void Conclude(const std::string& check, const std::string& remark) {
    if (broken_.count(check) == 0) report_.Print(check, true, remark);
  }

  APIHandler handler_;
  ParamSource params_;
  Report& report_;
  const size_t descriptors_ = CountEntries("/proc/self/fd");
  const size_t threads_ = CountEntries("/proc/self/task");
  std::set<std::string> broken_;
  bool changing_ = false;
  unsigned thrown_ = 0;
  std::string first_thrown_;
};

void CheckTable(const fs::path& file, Report& report) {
  const Library library(file);
  report.loaded = true;
  report.Print("loads", true, "");

  Copy(report.step, "reading the table");
  const APITableEntry* row = library.Table();
  const bool same = row == library.Table() && row == library.Table();
  std::set<std::string> methods;
  std::string incomplete;
  std::string repeated;
  for (; row != nullptr && row->api != nullptr && report.rows < kMostRows; ++row) {
    const std::string number = "row " + std::to_string(++report.rows);
    const bool complete = row->method != nullptr && row->handler != nullptr;
    if (!complete) incomplete = number + " has no method name or no handler";
    if (complete && !methods.insert(MethodName(*row)).second) repeated = number + " repeats an earlier one";
  }
  const bool ends = report.rows > 0 && report.rows < kMostRows && row->version == 0 && row->method == nullptr &&
                    row->handler == nullptr;
  report.Print("table", ends, std::to_string(report.rows) + (ends ? " rows and an end row" : " rows, no end row"));
  report.Print("complete-rows", incomplete.empty(), incomplete);
  report.Print("unique-rows", repeated.empty(), repeated);
  report.Print("same-pointer", same, same ? "" : "a later call of GetAPITable gave another pointer");
}

void CheckMethod(const CheckOptions& options, unsigned index, Report& report) {
  const Module module(options.module);
  const APITableEntry& row = module.Rows()[index];
  Copy(report.subject, MethodName(row));
  MethodCheck(row.handler, options.seed + index, report).Run();
  Copy(report.step, "unloading");
}

/// Waits for the end of a child process, and kills it when a call passes the limit. Says how it ended.
std::string Await(pid_t child, const Report& report, std::chrono::seconds limit) {
  using Clock = std::chrono::steady_clock;
  int status = 0;
  unsigned calls = report.calls;
  for (auto since = Clock::now(); waitpid(child, &status, WNOHANG) == 0; std::this_thread::sleep_for(kPoll)) {
    if (calls != report.calls) since = Clock::now();
    calls = report.calls;
    if (Clock::now() - since < limit && end_signal == 0) continue;
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return "no return within " + std::to_string(limit.count()) + " s";
  }
  if (WIFSIGNALED(status)) return std::string("the process died of: ") + strsignal(WTERMSIG(status));
  return "the process left with exit code " + std::to_string(WEXITSTATUS(status));
}

/// Ends the processes that a child left to this one. False when there were none.
bool EndLeftovers() {
  const std::string list = "/proc/self/task/" + std::to_string(getpid()) + "/children";
  unsigned ended = 0;
  for (pid_t left = 0; ended < kMostLeftovers && std::ifstream(list) >> left; ++ended) {
    kill(left, SIGKILL);
    waitpid(left, nullptr, 0);
  }
  return ended > 0;
}

/// Does `work` in a child process with a new desk device, and reports whether it came to its end.
void RunChild(const CheckOptions& options, Report& report, const std::function<void()>& work) {
  std::string folder = fs::temp_directory_path() / "webapi-check-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) throw std::system_error(errno, std::generic_category(), folder);
  const auto remove = [](const std::string* path) {
    std::error_code error;
    fs::remove_all(*path, error);
  };
  const std::unique_ptr<std::string, decltype(remove)> removal(&folder, remove);

  report.finished = false;
  Copy(report.step, "loading '" + options.module.string() + "'");
  Copy(report.error, "");
  const pid_t child = fork();
  if (child == -1) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // Whatever the module prints is not for the reader of the findings.
    const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nowhere, stream);
    // Lets a sanitizer start its own thread now, so that it does not count as the module's.
    std::thread([] {}).join();
    try {
      const Device device(folder, Device::Clock::kCounted);
      work();
      report.finished = true;
    } catch (const std::exception& problem) {
      Copy(report.error, problem.what());
    }
    _exit(0);
  }
  const std::string ending = Await(child, report, std::chrono::seconds(options.limit_seconds)) + ", in " + report.step;
  const bool left = EndLeftovers();
  if (end_signal != 0) throw std::runtime_error(std::string("ended by: ") + strsignal(end_signal));
  const std::string problem = report.finished ? "" : report.error[0] != '\0' ? report.error : ending;
  if (!report.loaded) throw ModuleError(problem);
  report.Print("returns", report.finished, problem);
  report.Print("processes", !left, left ? "a process was left behind, and ended" : "");
}

}  // namespace

bool CheckModule(const CheckOptions& options) {
  const auto unmap = [](Report* memory) { munmap(memory, sizeof(Report)); };
  void* memory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  const int out = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, kFirstNumber);
  if (out < 0) throw std::system_error(errno, std::generic_category(), "a number for standard output");
  const std::unique_ptr<Report, decltype(unmap)> report(new (memory) Report{options.json, out, "module"}, unmap);
  prctl(PR_SET_CHILD_SUBREAPER, 1);

  // Neither a reader that goes away nor a signal may keep the folders from being removed.
  std::signal(SIGPIPE, SIG_IGN);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, [](int number) { end_signal = number; });
  const std::string seed = std::to_string(options.seed);
  report->Write(options.json ? "{\"seed\":" + seed + "}" : "seed  " + seed);
  RunChild(options, *report, [&] { CheckTable(options.module, *report); });
  const unsigned methods = report->broken ? 0 : report->rows;
  for (unsigned index = 0; index < methods; ++index) {
    Copy(report->subject, "row " + std::to_string(index + 1));
    RunChild(options, *report, [&] { CheckMethod(options, index, *report); });
  }
  const Json::Value verdict =
      Object({{"checks", report->checks}, {"failures", report->failures}, {"seed", options.seed}});
  report->Write(options.json ? ToLine(verdict)
                             : std::to_string(report->checks) + " checks, " + std::to_string(report->failures) +
                                   " failures, seed " + seed);
  return !report->broken;
}

}  // namespace desk
