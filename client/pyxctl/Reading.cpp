#include "Reading.h"

#include <stdexcept>

namespace zav::pyxctl {
namespace {

using pyxclient::Client;
using pyxclient::Error;
using pyxclient::Failure;

std::string CursorIn(const std::optional<CursorFile>& file) {
  if (!file) return {};
  file->CheckWritable();
  return file->Read();
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
  auto record = walk_.Next();
  while (record && !selection_.Holds(*record)) record = walk_.Next();
  return record;
}

void Reading::Keep() {
  if (!file_) return;
  const std::string cursor = walk_.Cursor();
  if (cursor == kept_) return;
  file_->Write(cursor);
  kept_ = cursor;
}

}  // namespace zav::pyxctl
