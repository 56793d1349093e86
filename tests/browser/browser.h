#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace desk {

/// A program of this test, with up to two descriptors handed over as its numbers 3 and 4, or one as its number 2.
class Program {
 public:
  Program(const std::vector<std::string>& words, const std::vector<std::pair<int, int>>& descriptors);
  /// Ends it.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

 private:
  pid_t process_ = 0;
};

/// Text that arrives through a pipe.
class Reader {
 public:
  explicit Reader(int file) : file_(file) {}
  /// What comes before the next `end`. Throws `std::runtime_error` when it has not come within 30 s.
  std::string Until(const std::string& end);

 private:
  int file_;
  std::string buffer_;
};

/// Two ends of a pipe that no other program gets.
struct Pipe {
  Pipe();
  ~Pipe();
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  int read;
  int write;
};

/// A headless browser with one page, driven through its debugging pipe. Everything throws `std::runtime_error` when
/// the browser refuses or takes longer than 30 s. Dialogs of the page are accepted.
class Browser {
 public:
  /// Keeps its profile in `folder`.
  explicit Browser(const std::filesystem::path& folder);

  /// Does a command of the DevTools protocol and gives its result.
  Json::Value Command(const std::string& method, const Json::Value& params = Json::objectValue);
  /// The value of an expression in the page, whose promise is waited for.
  Json::Value Evaluate(const std::string& expression);
  /// Waits until an expression holds in the page. False when it does not within 10 s.
  bool Holds(const std::string& condition);

  void Open(const std::string& address);
  /// Clicks the middle of an element once it can be clicked.
  void Click(const std::string& selector);
  /// Presses a key by its name.
  void Press(const std::string& key, int code, const std::string& text = "", int modifiers = 0);
  /// Replaces what stands in a field by typing.
  void Fill(const std::string& selector, const std::string& text);
  /// Chooses an option by its value, with the arrow keys.
  void Choose(const std::string& selector, const std::string& value);
  /// In the format webp.
  void Screenshot(const std::filesystem::path& file);

  /// What the page asked for in dialogs.
  std::vector<std::string> dialogs;
  /// What the browser complained of, and requests that left the machine.
  std::vector<std::string> complaints;

 private:
  void Send(int id, const std::string& method, const Json::Value& params);
  void Notice(const Json::Value& event);

  Pipe commands_;
  Pipe answers_;
  Program program_;
  Reader reader_;
  int last_id_ = 0;
  std::string session_;
};

/// A text as the page's language writes it.
std::string Quote(const std::string& text);

}  // namespace desk
