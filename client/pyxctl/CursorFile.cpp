#include "CursorFile.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <pyxclient/pyxclient.hpp>
#include <stdexcept>
#include <system_error>

#include "WholeFile.h"

namespace zav::pyxctl {

std::string CursorFile::Read() const {
  std::ifstream file(path_);
  if (!file) {
    if (errno == ENOENT) return {};
    throw std::system_error(errno, std::generic_category(), "cannot read " + path_);
  }
  std::string cursor;
  std::getline(file, cursor);
  if (file.bad() || cursor.size() >= PYX_CURSOR_SIZE) {
    throw std::runtime_error("the file " + path_ + " holds no cursor; remove it to read the log from its beginning");
  }
  return cursor;
}

void CursorFile::CheckWritable() const {
  const std::filesystem::path parent = std::filesystem::path(path_).parent_path();
  // The file is replaced by a new one: what counts is its directory.
  if (::access(parent.empty() ? "." : parent.c_str(), W_OK | X_OK) == 0) return;
  throw std::system_error(errno, std::generic_category(), "cannot write " + path_);
}

void CursorFile::Write(const std::string& cursor) const {
  WriteWholeFile(path_, cursor + '\n');
}

}  // namespace zav::pyxctl
