#pragma once

#include <string>

namespace zav::pyxctl {

/// The file that remembers between two runs how far the log was read: one line with the cursor of the last record that
/// was written out. It is replaced in one step, so that a run that is cut short leaves the old one or the new one.
class CursorFile {
 public:
  explicit CursorFile(std::string path) : path_(std::move(path)) {}

  /// The cursor; empty where there is no file yet.
  /// @throws std::runtime_error, in words, where it cannot be read or holds none.
  std::string Read() const;

  /// Whether it could be written, as far as can be told beforehand.
  /// @throws std::system_error, in words, where it could not.
  void CheckWritable() const;

  /// Keeps a cursor, on the disk when this returns.
  /// @throws std::runtime_error, in words, where it cannot be written; the cursor before is kept then.
  void Write(const std::string& cursor) const;

 private:
  std::string path_;
};

}  // namespace zav::pyxctl
