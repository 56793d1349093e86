// The device's view of this machine: the functions of other libraries that a module calls, defined in the
// executable so that they stand before the real ones. Absolute paths of the device lead below the device's
// root folder; every other path, every process without a device, and what is called outside a web-API call
// is left alone.

#define OPENSSL_SUPPRESS_DEPRECATED

#include <dlfcn.h>
#include <openssl/md5.h>
#include <regex.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
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
  desk::Line line(name, args);
  line["result"] = result;
  line.Record();
}

/// Sets the error number that a fault has for a function, and names the fault in its line.
void Inject(const desk::Faults::Injection& injection, desk::Line& line) {
  line["fault"] = injection.fault;
  errno = injection.result.isInt() ? injection.result.asInt() : EIO;
}

/// Records how a file function ended, and leaves errno as it is.
void Finish(desk::Line& line, bool done) {
  const int error = errno;
  const char* error_name = strerrorname_np(error);
  line["result"] = done ? "ok" : error_name != nullptr ? error_name : "failed";
  line.Record();
  errno = error;
}

/// Does `work`, or fails with the error number of a fault. The caller finds errno as the work left it.
template <typename Result, typename Work>
Result FileFunction(const char* name, const Json::Value& args, Result failure, Work work) {
  desk::Line line(name, args);
  const auto injection = Device::Get().faults.Take(name);
  if (injection) Inject(*injection, line);
  const Result result = injection ? failure : work();
  Finish(line, result != failure);
  return result;
}

/// Does `work`; inside a web-API call as an operation that is traced and can fail.
template <typename Work>
int Traced(const char* name, const Json::Value& args, Work work) {
  if (desk::current_call == 0) return work();
  return desk::Operation(name, args).Run(work);
}

/// Descriptors of the device's open files, as many as a server allows itself.
std::array<std::atomic<bool>, 4096> device_files{};

bool IsDeviceFile(int file) {
  return file >= 0 && static_cast<size_t>(file) < device_files.size() && device_files[static_cast<size_t>(file)];
}

void MarkDeviceFile(FILE* stream, bool open) {
  const int file = stream == nullptr ? -1 : fileno(stream);
  if (file >= 0 && static_cast<size_t>(file) < device_files.size()) device_files[static_cast<size_t>(file)] = open;
}

/// Whether opening the file could wait for somebody else.
bool IsPipe(const std::string& place) {
  struct stat status;
  return stat(place.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

FILE* Open(const char* path, const char* mode, FILE* (*open)(const char*, const char*)) {
  if (!IsOfDevice(path)) return open(path, mode);
  const std::string place = Locate(path);
  FILE* stream = FileFunction<FILE*>("fopen", Args(path, mode), nullptr, [&]() -> FILE* {
    if (!IsPipe(place)) return open(place.c_str(), mode);
    errno = EINVAL;
    return nullptr;
  });
  MarkDeviceFile(stream, true);
  return stream;
}

/// Moves bytes of one of the device's files with `work`. Leaves a line in the trace only when it fails.
template <typename Work>
ssize_t MoveBytes(const char* name, int file, Work work) {
  if (!IsDeviceFile(file)) return work();
  const auto injection = Device::Get().faults.Take(name);
  if (!injection) return work();
  desk::Line line(name, Args(file));
  Inject(*injection, line);
  Finish(line, false);
  return -1;
}

void Log(int priority, const char* format, va_list args) {
  if (Device::Find() == nullptr) return vsyslog(priority, format, args);
  const int error = errno;
  char* text = nullptr;
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): started by both callers
  const int size = vasprintf(&text, format, args);
  const std::unique_ptr<char, decltype(&std::free)> memory(size < 0 ? nullptr : text, std::free);
  // Whole, so that secrets are found in it: one that is cut short would not be.
  if (memory) Record("syslog", Args(priority, memory.get()), Json::Value());
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

int fclose(FILE* stream) {
  static const auto real = Real("fclose", &fclose);
  MarkDeviceFile(stream, false);
  return real(stream);
}

ssize_t read(int file, void* data, size_t size) {
  static const auto real = Real("read", &read);
  return MoveBytes("read", file, [&] { return real(file, data, size); });
}

ssize_t write(int file, const void* data, size_t size) {
  static const auto real = Real("write", &write);
  return MoveBytes("write", file, [&] { return real(file, data, size); });
}

ssize_t writev(int file, const iovec* parts, int count) {
  static const auto real = Real("writev", &writev);
  return MoveBytes("writev", file, [&] { return real(file, parts, count); });
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
  if (desk::current_call == 0) return real(microseconds);
  desk::Line line("usleep", Args(microseconds));
  Device::Get().Sleep(std::chrono::microseconds(microseconds));
  line["result"] = 0;
  line.Record();
  return 0;
}

int regcomp(regex_t* regex, const char* pattern, int flags) {
  static const auto real = Real("regcomp", &regcomp);
  return Traced("regcomp", Args(pattern, flags), [&] { return real(regex, pattern, flags); });
}

int regexec(const regex_t* regex, const char* text, size_t matches, regmatch_t* positions, int flags) {
  static const auto real = Real("regexec", &regexec);
  return Traced("regexec", Args(text, flags), [&] { return real(regex, text, matches, positions, flags); });
}

void regfree(regex_t* regex) {
  static const auto real = Real("regfree", &regfree);
  real(regex);
  if (desk::current_call == 0) return;
  Record("regfree", Args(), Json::Value());
}

int MD5_Init(MD5_CTX* context) {
  static const auto real = Real("MD5_Init", &MD5_Init);
  return Traced("MD5_Init", Args(), [&] { return real(context); });
}

int MD5_Update(MD5_CTX* context, const void* data, size_t size) {
  static const auto real = Real("MD5_Update", &MD5_Update);
  return Traced("MD5_Update", Args(Json::UInt64(size)), [&] { return real(context, data, size); });
}

int MD5_Final(unsigned char* digest, MD5_CTX* context) {
  static const auto real = Real("MD5_Final", &MD5_Final);
  return Traced("MD5_Final", Args(), [&] { return real(digest, context); });
}

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Log(priority, format, args);
  va_end(args);
}

/// What a module built with fortification calls in place of `syslog`.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the C library's name
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Log(priority, format, args);
  va_end(args);
}
}
