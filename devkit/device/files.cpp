#include "devkit/device/files.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "devkit/device/device.h"

namespace desk {
namespace fs = std::filesystem;
namespace {

constexpr size_t kMostBytes = 16 << 20;
constexpr char kPart[] = ".part";
constexpr auto kLockPoll = std::chrono::microseconds(100);
constexpr auto kLockPatience = std::chrono::seconds(10);

FileError CannotRead(const fs::path& file, const char* reason) {
  return FileError("cannot read '" + file.string() + "': " + reason);
}

bool WritePart(const fs::path& part, mode_t mode, const std::string& text) {
  unlink(part.c_str());
  const File file(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (file < 0 || fchmod(file, mode) != 0) return false;
  return write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

}  // namespace

File::~File() {
  if (number_ >= 0) close(number_);
}

FolderLock::FolderLock(const fs::path& folder) : folder_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (folder_ < 0) throw CannotRead(folder, std::strerror(errno));
  const auto end = std::chrono::steady_clock::now() + kLockPatience;
  for (; flock(folder_, LOCK_EX | LOCK_NB) != 0; std::this_thread::sleep_for(kLockPoll)) {
    if (std::chrono::steady_clock::now() < end) continue;
    throw FileError("another program does not let go of '" + folder.string() + "'");
  }
}

std::optional<std::string> LoadText(const fs::path& path) {
  // Without waiting, should it be a pipe.
  const File file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (file < 0 && errno == ENOENT) return std::nullopt;
  struct stat status;
  if (file < 0 || fstat(file, &status) != 0) throw CannotRead(path, std::strerror(errno));
  if (!S_ISREG(status.st_mode)) throw CannotRead(path, "it is no regular file");
  if (static_cast<size_t>(status.st_size) > kMostBytes) throw CannotRead(path, "it is larger than 16 MiB");
  std::string text(static_cast<size_t>(status.st_size), '\0');
  const ssize_t size = read(file, text.data(), text.size());
  if (size < 0) throw CannotRead(path, std::strerror(errno));
  text.resize(static_cast<size_t>(size));
  return text;
}

std::optional<Json::Value> LoadJson(const fs::path& file) {
  const auto text = LoadText(file);
  if (!text) return std::nullopt;
  return TryParseJson(*text).value_or(Json::Value());
}

bool StoreText(const fs::path& file, const std::string& text) {
  struct stat status;
  const bool present = stat(file.c_str(), &status) == 0;
  if (!present && errno != ENOENT) return false;
  if (present && (!S_ISREG(status.st_mode) || (status.st_mode & S_IWUSR) == 0)) return false;
  const fs::path part = file.string() + kPart;
  const mode_t mode = present ? status.st_mode & ALLPERMS : S_IRUSR | S_IWUSR;
  const bool written =
      text.size() <= kMostBytes && WritePart(part, mode, text) && rename(part.c_str(), file.c_str()) == 0;
  if (!written) unlink(part.c_str());
  return written;
}

bool StoreJson(const fs::path& file, const Json::Value& document) {
  static const Json::StreamWriterBuilder writer;
  const std::string text = Json::writeString(writer, document) + "\n";
  // A stream keeps quiet about memory that it could not get: the text may be cut short.
  return TryParseJson(text) && StoreText(file, text);
}

void RemoveParts(const fs::path& folder) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    if (entry.path().extension() == kPart) fs::remove(entry.path(), error);
  }
}

}  // namespace desk
