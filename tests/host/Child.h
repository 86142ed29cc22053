#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

/// A program that runs beside the test, with its standard input and output in the test's hands. Every wait ends, with
/// a failed expectation, after a deadline; a child that still runs at the end is killed.
class Child {
 public:
  enum class Stdio { kPipes, kTerminal };

  /// @param command  the program, looked up in PATH, and its arguments.
  /// @param prepare  runs in the child before the program.
  explicit Child(const std::vector<std::string>& command, Stdio stdio = Stdio::kPipes,
                 const std::function<void()>& prepare = {});
  ~Child();

  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void Write(const std::string& text);
  void CloseInput();
  void CloseOutput();
  void Signal(int number) const;
  /// Takes its terminal away.
  void HangUp() {
    CloseInput();
    CloseOutput();
  }

  /// Reads output up to and with the next `text`. @return what came before it.
  std::string ReadUntil(const std::string& text);
  /// Reads one line of output. @return it without its end.
  std::string ReadLine() { return ReadUntil("\n"); }
  /// What has come and was not read yet, and all that comes until the output ends.
  std::string ReadAll();

  /// Waits for the end. @return the exit status; 128 and the signal's number when a signal ended it.
  int Wait();

  /// What it has written to standard error so far; with a terminal that is part of the output.
  std::string Errors() const;

 private:
  bool ReadMore();
  void StartWithPipes(const std::function<void()>& run);
  void StartOnTerminal(const std::function<void()>& run);

  pid_t process = -1;
  int input = -1;
  int output = -1;
  int errors = -1;
  std::optional<int> status;
  std::string buffer;
};

/// What a program that was given no input did.
struct Outcome {
  int status;
  std::string output;
  std::string errors;
};

Outcome RunToEnd(const std::vector<std::string>& command, const std::function<void()>& prepare = {});
