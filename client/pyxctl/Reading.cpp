#include "Reading.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "Exit.h"
#include "Records.h"

namespace zav::pyxctl {
namespace {

using pyxclient::Client;
using pyxclient::Error;
using pyxclient::Failure;

std::string CursorIn(const std::optional<CursorFile>& file) {
  if (!file) return {};
  std::string cursor = file->Read();
  file->CheckWritable();
  return cursor;
}

pyxclient::Log Resumed(Client& client, const std::string& cursor, const std::string& path) try {
  return client.Resume(cursor);
} catch (const Error& error) {
  if (error.failure() != Failure::kOutOfRange) throw;
  throw std::runtime_error("the file " + path + " holds no cursor; remove it to read the log from its beginning");
}

}  // namespace

Reading::Reading(Client& client, const Selection& selection, const std::string& cursorPath)
    : selection_(selection),
      file_(cursorPath.empty() ? std::nullopt : std::optional<CursorFile>(cursorPath)),
      walk_(Resumed(client, CursorIn(file_), cursorPath)),
      kept_(walk_.Cursor()) {}

std::optional<pyxclient::Record> Reading::Next() {
  auto record = NextThatFits(walk_, tooLarge_);
  while (record && !selection_.Holds(*record)) record = NextThatFits(walk_, tooLarge_);
  return record;
}

void Reading::Complain() {
  if (walk_.TakeChanged()) {
    pyxctl::Complain(
        "the log was reset, was numbered anew, or dropped records before they were read here; some may be missing");
  }
  ComplainOfTooLarge(std::exchange(tooLarge_, 0));
}

void Reading::Keep() {
  if (!file_) return;
  const std::string cursor = walk_.Cursor();
  if (cursor == kept_) return;
  // The records have to be on the disk before what says that they are. A pipe or a terminal cannot be synced.
  if (::fdatasync(STDOUT_FILENO) != 0 && errno != EINVAL && errno != EROFS) {
    throw std::system_error(errno, std::generic_category(), "cannot write the output");
  }
  file_->Write(cursor);
  kept_ = cursor;
}

}  // namespace zav::pyxctl
