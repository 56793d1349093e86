#pragma once

#include <json/value.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

/// The stand-in's own files. They are replaced through a temporary file beside them (NAME.part) and a rename.
namespace desk {

/// A file that is there and cannot be read, or a folder that cannot be held. An operation that meets it fails.
class FileError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// An open file by its descriptor, closed at the end; negative for none.
class File {
 public:
  explicit File(int number) : number_(number) {}
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  operator int() const { return number_; }

 private:
  int number_;
};

/// Holds a folder's files against other threads and other programs, while one is read, changed and written.
class FolderLock {
 public:
  /// Throws `FileError` when the folder cannot be had within 10 s.
  explicit FolderLock(const std::filesystem::path& folder);

 private:
  File folder_;
};

/// Reads a file whole; nothing when there is none. Throws `FileError` for one that cannot be read, is no regular
/// file or is larger than 16 MiB.
std::optional<std::string> LoadText(const std::filesystem::path& file);

/// Reads a JSON document likewise; null when it is broken.
std::optional<Json::Value> LoadJson(const std::filesystem::path& file);

/// Replaces a file, which keeps its mode; a new one is its owner's only. False, and the file is as it was, when that
/// fails, or when the file is write-protected, which counts for the superuser too. Hold the folder.
bool StoreText(const std::filesystem::path& file, const std::string& text);
bool StoreJson(const std::filesystem::path& file, const Json::Value& document);

/// Removes what programs left behind in a folder that ended in the middle of `StoreText`. Hold the folder.
void RemoveParts(const std::filesystem::path& folder);

}  // namespace desk
