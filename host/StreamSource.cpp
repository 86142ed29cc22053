#include "StreamSource.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace host {
namespace {

constexpr size_t kReadSize = 65536;

}  // namespace

StreamSource::StreamSource(int input, size_t limit) : file(input), maxLine(limit) {}

int StreamSource::descriptor() const {
  return ended ? -1 : file;
}

void StreamSource::Read() {
  std::array<char, kReadSize> bytes;
  const ssize_t count = read(file, bytes.data(), bytes.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (count > 0) {
    pending.append(bytes.data(), static_cast<size_t>(count));
  } else {
    ended = true;
    if (!line.empty()) pending += '\n';
  }
  TakeLine();
}

bool StreamSource::HasNext() const {
  return lineComplete;
}

std::string StreamSource::Next() {
  std::string next = std::exchange(line, {});
  lineComplete = false;
  TakeLine();
  return next;
}

void StreamSource::TakeLine() {
  if (lineComplete) return;
  const size_t end = std::min(pending.find('\n'), pending.size());
  line.append(pending, 0, std::min(end, maxLine - line.size()));
  lineComplete = end < pending.size();
  pending.erase(0, lineComplete ? end + 1 : end);
}

}  // namespace host
