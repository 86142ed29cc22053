#pragma once

#include <optional>
#include <string>

namespace host {

/// Where the commands come from, line by line, without ever waiting: the caller waits for `descriptor` to become
/// readable and then calls `Read`. One thread.
class LineSource {
 public:
  LineSource() = default;
  virtual ~LineSource() = default;

  LineSource(const LineSource&) = delete;
  LineSource& operator=(const LineSource&) = delete;

  /// What to wait for; -1 once the input has ended.
  virtual int descriptor() const = 0;

  /// Takes what there is to be read. Only to be called when `descriptor` is readable or broken.
  virtual void Read() = 0;

  /// Whether `Next` has a line.
  virtual bool HasNext() const = 0;

  /// Takes the next line, without its end; there must be one.
  virtual std::string Next() = 0;

  /// Asks for a line where somebody is there to be asked: once at the start, then after each answer.
  virtual void Prompt() {}
};

}  // namespace host
