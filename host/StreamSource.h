#pragma once

#include <string>

#include "LineSource.h"

namespace host {

/// Lines from a pipe, a file or a plain terminal. What stands after the last line end is a line as well.
class StreamSource : public LineSource {
 public:
  /// @param file     the descriptor to read; it stays the caller's.
  /// @param maxLine  how many bytes of a line are kept at most; of a longer one the rest is dropped.
  StreamSource(int file, size_t maxLine);

  int descriptor() const override;
  void Read() override;
  bool HasNext() const override;
  std::string Next() override;

 private:
  void TakeLine();

  int file;
  size_t maxLine;
  bool ended = false;
  // What was read and not yet looked at, and the line that it is cut into.
  std::string pending;
  std::string line;
  bool lineComplete = false;
};

}  // namespace host
