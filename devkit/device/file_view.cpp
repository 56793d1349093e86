// The device's view of this machine: the file functions, the system log and the pause that a module calls,
// defined in the executable so that they stand before the C library's. Absolute paths of the device lead
// below the device's root folder; every other path, and every process without a device, is left alone.

#include <dlfcn.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "devkit/device/operation.h"

namespace {

using desk::Args;
using desk::Device;

constexpr char kSystemFolder[] = "/usr/vexa/";
constexpr char kSettingsFile[] = "/etc/vexainfo.conf";

template <typename Function>
Function* Real(const char* name, Function*) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool IsOfDevice(const char* path) {
  if (Device::Find() == nullptr || path == nullptr) return false;
  return std::strncmp(path, kSystemFolder, sizeof(kSystemFolder) - 1) == 0 || std::strcmp(path, kSettingsFile) == 0;
}

std::string Locate(const char* path) { return Device::Get().Locate(path).string(); }

void Record(const char* name, const Json::Value& args, const Json::Value& result) {
  Json::Value line;
  line["call"] = desk::current_call;
  line["op"] = name;
  line["args"] = args;
  line["result"] = result;
  Device::Get().trace.Record(line);
}

/// Does `work`, or fails with the error number of a fault. The caller finds errno as the work left it.
template <typename Result, typename Work>
Result FileFunction(const char* name, const Json::Value& args, Result failure, Work work) {
  const auto fault = Device::Get().faults.Take(name);
  if (fault) errno = fault->asInt();
  const Result result = fault ? failure : work();
  const int error = errno;
  const char* error_name = strerrorname_np(error);
  Record(name, args, result != failure ? "ok" : error_name != nullptr ? error_name : "failed");
  errno = error;
  return result;
}

FILE* Open(const char* path, const char* mode, FILE* (*open)(const char*, const char*)) {
  if (!IsOfDevice(path)) return open(path, mode);
  const std::string place = Locate(path);
  return FileFunction<FILE*>("fopen", Args(path, mode), nullptr, [&] { return open(place.c_str(), mode); });
}

void Log(int priority, const char* format, va_list args) {
  if (Device::Find() == nullptr) return vsyslog(priority, format, args);
  const int error = errno;
  char text[8192];
  std::vsnprintf(text, sizeof(text), format, args);
  Record("syslog", Args(priority, text), Json::Value());
  errno = error;
}

}  // namespace

extern "C" {

FILE* fopen(const char* path, const char* mode) {
  static const auto real = Real("fopen", &fopen);
  return Open(path, mode, real);
}

FILE* fopen64(const char* path, const char* mode) {
  static const auto real = Real("fopen64", &fopen64);
  return Open(path, mode, real);
}

int rename(const char* from, const char* to) noexcept {
  static const auto real = Real("rename", &rename);
  if (!IsOfDevice(from)) return real(from, to);
  return FileFunction("rename", Args(from, to), -1, [&] { return real(Locate(from).c_str(), Locate(to).c_str()); });
}

int unlink(const char* path) noexcept {
  static const auto real = Real("unlink", &unlink);
  if (!IsOfDevice(path)) return real(path);
  return FileFunction("unlink", Args(path), -1, [&] { return real(Locate(path).c_str()); });
}

int chmod(const char* path, mode_t mode) noexcept {
  static const auto real = Real("chmod", &chmod);
  if (!IsOfDevice(path)) return real(path, mode);
  return FileFunction("chmod", Args(path, mode), -1, [&] { return real(Locate(path).c_str(), mode); });
}

int usleep(useconds_t microseconds) {
  static const auto real = Real("usleep", &usleep);
  if (Device::Find() == nullptr) return real(microseconds);
  Device::Get().Sleep(std::chrono::microseconds(microseconds));
  Record("usleep", Args(microseconds), 0);
  return 0;
}

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Log(priority, format, args);
  va_end(args);
}

/// What a module built with fortification calls in place of `syslog`.
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Log(priority, format, args);
  va_end(args);
}
}
