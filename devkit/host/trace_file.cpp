#include "devkit/host/trace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <stdexcept>

namespace desk {
namespace {

constexpr off_t kMostBytes = 16 << 20;
/// Some thirty thousand years, so that sums of times stay numbers.
constexpr Json::UInt64 kMostTime = Json::UInt64{1} << 50;

/// Does not wait for the reader of a pipe; one that nobody reads is an error.
int OpenTrace(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, S_IRUSR | S_IWUSR);
  if (file >= 0) fcntl(file, F_SETFL, O_APPEND);
  return file;
}

bool IsTraceLine(const Json::Value& line) {
  const auto is_time = [&line](const char* member) {
    return line[member].isUInt64() && line[member].asUInt64() < kMostTime;
  };
  if (!line.isObject() || !line["op"].isString() || !line["call"].isUInt() || !line["pid"].isUInt()) return false;
  if (!is_time("at") || !is_time("from") || !is_time("us")) return false;
  for (const char* text : {"method", "problem", "fault"}) {
    if (line.isMember(text) && !line[text].isString()) return false;
  }
  return true;
}

/// Hands each line of a trace to `take`.
bool ReadLines(std::istream& trace, const std::function<void(const Json::Value&)>& take) {
  unsigned number = 0;
  bool any = false;
  for (std::string text; std::getline(trace, text);) {
    ++number;
    const auto line = TryParseJson(text);
    if (line && IsTraceLine(*line)) {
      take(*line);
      any = true;
    } else {
      std::cerr << "webapi-host: line " << number << " is no line of a trace and is left out\n";
    }
  }
  return any;
}

std::string Join(const Json::Value& values) {
  std::string list;
  for (const Json::Value& value : values) list += (list.empty() ? "" : ", ") + ToLine(value);
  return list;
}

void PrintLine(const Json::Value& line, std::ostream& out) {
  out << "  " << std::setw(8) << line["us"].asString() << " us  " << line["op"].asString() << '(' << Join(line["args"])
      << ')';
  if (line.isMember("result") && !line["result"].isNull()) out << " = " << ToLine(line["result"]);
  if (line.isMember("thrown")) out << " left with an exception";
  if (line.isMember("out")) out << "  out " << ToLine(line["out"]);
  if (line.isMember("problem")) out << "  because it " << line["problem"].asString();
  if (line.isMember("fault")) out << "  injected: " << line["fault"].asString();
  out << '\n';
}

}  // namespace

TraceWriter::TraceWriter(Device& device, const std::string& file) : device_(device) {
  if (file == "-") {
    file_ = STDERR_FILENO;
  } else if (!file.empty()) {
    path_ = file;
    file_ = OpenTrace(path_);
    if (file_ < 0) throw std::runtime_error("cannot write the trace to '" + file + "': " + std::strerror(errno));
  }
  device_.trace.SetSink([this](const auto& lines, const auto& log) {
    if (file_ >= 0) Write(lines);
    for (const std::string& line : log) std::cerr << "log: " << line << std::endl;
  });
}

TraceWriter::~TraceWriter() {
  device_.trace.SetSink(nullptr);
  if (!path_.empty()) close(file_);
}

/// Writes lines whole or not at all. A full disk or file costs those only that it has no room for.
void TraceWriter::Write(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  const bool has_room = path_.empty() || MakeRoom(text.size());
  const ssize_t size = has_room ? write(file_, text.data(), text.size()) : -1;
  const bool failed = size != static_cast<ssize_t>(text.size());
  const bool torn = failed && size > 0 && !path_.empty();
  [[maybe_unused]] const int cut = torn ? ftruncate(file_, lseek(file_, 0, SEEK_CUR) - size) : 0;
  if (failed && !failed_) std::cerr << "webapi-host: lines of the trace cannot be written and are left out\n";
  failed_ = failed;
}

bool TraceWriter::MakeRoom(size_t bytes) {
  struct stat open_file, named;
  if (fstat(file_, &open_file) != 0 || !S_ISREG(open_file.st_mode)) return true;
  // Another program may have removed the file or renamed it.
  const bool is_named = stat(path_.c_str(), &named) == 0 && named.st_ino == open_file.st_ino;
  const off_t size = open_file.st_size;
  if (is_named && (size == 0 || size + static_cast<off_t>(bytes) <= kMostBytes)) return true;
  if (is_named && std::rename(path_.c_str(), (path_ + ".1").c_str()) != 0) return false;
  const int fresh = OpenTrace(path_);
  if (fresh < 0) return false;
  close(file_);
  file_ = fresh;
  return true;
}

bool PrintTrace(std::istream& trace, std::ostream& out) {
  Json::Value last;
  return ReadLines(trace, [&](const Json::Value& line) {
    if (line["call"] != last["call"] || line["pid"] != last["pid"]) {
      out << "call " << line["call"].asString() << "  " << line["method"].asString() << '\n';
    }
    last = line;
    PrintLine(line, out);
  });
}

bool PrintTraceEvents(std::istream& trace, std::ostream& out) {
  constexpr Json::Int64 kMicroseconds = 1000;
  std::map<std::pair<unsigned, unsigned>, Json::Int64> begins;
  const char* separator = "{\"traceEvents\":[\n";
  const bool any = ReadLines(trace, [&](const Json::Value& line) {
    const Json::Int64 from = line["from"].asInt64();
    const std::pair call(line["pid"].asUInt(), line["call"].asUInt());
    const Json::Int64 begin = begins.try_emplace(call, line["at"].asInt64() * kMicroseconds - from).first->second;
    Json::Value event = Object({{"name", line["op"]},
                                {"cat", line["method"]},
                                {"ph", "X"},
                                {"pid", line["pid"]},
                                {"tid", line["call"]},
                                {"ts", begin + from},
                                {"dur", line["us"]}});
    for (const char* member : {"args", "out", "result", "thrown", "fault", "problem"}) {
      if (line.isMember(member)) event["args"][member] = line[member];
    }
    out << separator << ToLine(event);
    separator = ",\n";
  });
  out << (any ? "" : separator) << "\n]}\n";
  return any;
}

}  // namespace desk
