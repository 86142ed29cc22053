#include "CursorFile.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <pyxclient/pyxclient.hpp>
#include <stdexcept>
#include <system_error>

#include "WholeFile.h"

namespace zav::pyxctl {

std::string CursorFile::Read() const {
  const std::filesystem::file_status status = std::filesystem::status(path_);
  if (!std::filesystem::exists(status)) return {};
  if (!std::filesystem::is_regular_file(status)) throw std::runtime_error(path_ + " is no file for a cursor");
  std::ifstream file(path_);
  if (!file) throw std::system_error(errno, std::generic_category(), "cannot read " + path_);
  std::array<char, PYX_CURSOR_SIZE> text{};
  file.read(text.data(), text.size());
  const std::string_view cursor(text.data(), static_cast<std::size_t>(file.gcount()));
  if (cursor.size() == text.size() || !cursor.ends_with('\n') || cursor.find('\0') != cursor.npos) {
    throw std::runtime_error("the file " + path_ + " holds no cursor; remove it to read the log from its beginning");
  }
  return std::string(cursor.substr(0, cursor.size() - 1));
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
