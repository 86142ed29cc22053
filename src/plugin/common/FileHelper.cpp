#include "common/FileHelper.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string_view>

#include "common/Log.h"

namespace zav::common {
namespace {

constexpr mode_t kDirectoryMode = 0775;
constexpr mode_t kPermissionBits = 0777;
constexpr size_t kReadSize = 4096;
// A directory always lists "." and "..", so a third entry is content.
constexpr int kEntriesOfAnEmptyDirectory = 2;

struct DirectoryCloser {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

/// Regular files and symbolic links are the kinds whose number differs in no other bit than this mask leaves out.
bool IsFileOrLink(mode_t mode) {
  return (mode & 0xD000) == 0x8000;
}

bool Exists(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0;
}

/// Whether `path` is a directory, itself and not by a link. @return 0, or -1 with a warning from `site`.
/// @param before  stands before the path in the warning about what is no directory.
int CheckDirectory(const LogSite& site, const std::string& path, const char* before = "") {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) {
    LogLine(Priority::kWarning, site, "could not take info (lstat) about directory: ", path);
    return -1;
  }
  if (!S_ISDIR(info.st_mode)) {
    LogLine(Priority::kWarning, site, before, path, " is not a directory");
    return -1;
  }
  return 0;
}

/// One step through a directory: 0 and an entry; 0 and null at the end; else the error, and null.
int ReadDir(DIR* directory, dirent** entry) {
  errno = 0;
  *entry = readdir(directory);
  if (*entry != nullptr) return 0;
  const int error = errno;
  errno = 0;
  return error;
}

/// The file that a copy is written to: a new one beside `dst`, put in its place when it is whole, so that `dst` never
/// holds a part of the content. Where that cannot be (`dst` is a pipe, a device or a link, or no file can be made
/// beside it), `dst` itself.
class CopyTarget {
 public:
  explicit CopyTarget(const std::string& dst) : destination(dst), path(CanBeReplaced(dst) ? dst + ".new" : dst) {
    if (IsNew() && !MakePrivate(path)) {
      // Where there is no room for another file there is none for the content of this one.
      if (errno == ENOSPC || errno == EDQUOT) return;
      path = dst;
    }
    stream.open(path, std::ios::out);
  }
  ~CopyTarget() {
    if (IsNew()) unlink(path.c_str());
  }
  CopyTarget(const CopyTarget&) = delete;
  CopyTarget& operator=(const CopyTarget&) = delete;

  bool IsOpen() const { return stream.is_open(); }

  /// Streams the whole of `from` into the target, closes it and puts it in place. A stream does not always tell a full
  /// disk from success (the last bytes go out at the close), so the sizes have the last word.
  bool Fill(std::ifstream& from, const std::string& src) {
    // An empty source would count as a failure of the stream.
    if (from.peek() != std::ifstream::traits_type::eof()) stream << from.rdbuf();
    stream.close();
    struct stat read {};
    struct stat written {};
    if (stat(src.c_str(), &read) != 0 || stat(path.c_str(), &written) != 0 || read.st_size != written.st_size) {
      return false;
    }
    if (!IsNew()) return true;
    if (rename(path.c_str(), destination.c_str()) != 0) return false;
    path = destination;
    return true;
  }

 private:
  static bool CanBeReplaced(const std::string& dst) {
    struct stat info {};
    if (lstat(dst.c_str(), &info) != 0) return errno == ENOENT;
    return S_ISREG(info.st_mode) && faccessat(AT_FDCWD, dst.c_str(), W_OK, AT_EACCESS) == 0;
  }
  /// Until it has the permissions of the source, nobody else is to see the content.
  static bool MakePrivate(const std::string& file) {
    unlink(file.c_str());
    const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    return descriptor != -1 && close(descriptor) == 0;
  }
  bool IsNew() const { return path != destination; }

  const std::string& destination;
  std::string path;
  std::ofstream stream;
};

/// As far as the file system does it: one that cannot says so, and there is nothing else to be done.
void Sync(const std::string& path, int flags) {
  const int descriptor = open(path.c_str(), flags | O_CLOEXEC);
  if (descriptor == -1) return;
  fsync(descriptor);
  close(descriptor);
}

void SyncDirectoryOf(const std::string& path) {
  Sync(path.substr(0, path.rfind('/') + 1), O_RDONLY | O_DIRECTORY);
}

void CopyPermissions(const std::string& path, mode_t mode) {
  const mode_t bits = mode & kPermissionBits;
  if (chmod(path.c_str(), bits) != 0) {
    LogLine(Priority::kWarning, LOG_SITE_OF("copyFile"), "chmod ", bits, "  failed");
  } else {
    LogLine(Priority::kDebug, LOG_SITE_OF("copyFile"), "chmod ", bits, " success");
  }
}

}  // namespace

int FileHelper::copyFile(const std::string& src, const std::string& dst) {
  struct stat info {};
  if (lstat(src.c_str(), &info) != 0) {
    LOG_WARNING("could not take info (lstat) about src: ", src);
    return -1;
  }
  if (!IsFileOrLink(info.st_mode)) {
    LOG_WARNING("src: ", src, " is not a file or link");
    return -1;
  }
  LOG_DEBUG("file: ", src, " size is ", info.st_size, " bytes");
  std::ifstream from(src, std::ios::in);
  if (!from.is_open()) {
    // The destination is made or emptied all the same.
    std::ofstream(dst, std::ios::out).close();
    LOG_WARNING("could not open src: ", src);
    return -1;
  }
  CopyTarget to(dst);
  if (!to.IsOpen()) {
    LOG_WARNING("could not open or create dst: ", dst);
    return -1;
  }
  if (!to.Fill(from, src)) {
    LOG_WARNING("could not copy the whole of src: ", src, " to dst: ", dst);
    return -1;
  }
  LOG_DEBUG("copy from file: ", src, "\n       to file: ", dst, "\nsuccess");
  CopyPermissions(dst, info.st_mode);
  return 0;
}

int FileHelper::deleteFile(const std::string& path) {
  const int result = std::remove(path.c_str());
  if (result != 0) {
    LOG_WARNING("delete file: ", path, " failed");
  } else {
    LOG_DEBUG("delete file: ", path, " success");
  }
  return result;
}

void FileHelper::discardFile(const std::string& path) {
  unlink(path.c_str());
}

bool FileHelper::fileExist(const std::string& path) {
  return Exists(path);
}

bool FileHelper::fileReadable(const std::string& path) {
  std::ifstream file(path, std::ios::in);
  std::array<char, kReadSize> chunk;
  while (file.read(chunk.data(), chunk.size())) {
  }
  return file.eof() && !file.bad();
}

void FileHelper::makeMark(const std::string& path) {
  std::ofstream(path, std::ios::out).close();
  SyncDirectoryOf(path);
}

void FileHelper::removeMark(const std::string& path) {
  if (unlink(path.c_str()) == 0) SyncDirectoryOf(path);
}

void FileHelper::syncFile(const std::string& path) {
  Sync(path, O_RDONLY);
  SyncDirectoryOf(path);
}

int FileHelper::createDirectory(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0) {
    if (!S_ISDIR(info.st_mode)) {
      LOG_WARNING(path, " is not a directory");
      return -1;
    }
    LOG_DEBUG("directory: ", path, " exist");
    return 0;
  }
  const int result = mkdir(path.c_str(), kDirectoryMode);
  if (result != 0) {
    LOG_WARNING("could not create a directory: ", path);
  } else {
    LOG_DEBUG("directory: ", path, " created successfully");
  }
  return result;
}

int FileHelper::directoryExist(const std::string& path) {
  if (CheckDirectory(LOG_SITE, path) != 0) return -1;
  LOG_DEBUG("directory: ", path, " exist");
  return 0;
}

int FileHelper::directoryEmpty(const std::string& path) {
  const Directory directory(opendir(path.c_str()));
  if (!directory) {
    LOG_WARNING(path, " is not a directory or doesn't exist");
    return -1;
  }
  int entries = 0;
  dirent* entry = nullptr;
  while (entries <= kEntriesOfAnEmptyDirectory && ReadDir(directory.get(), &entry) == 0 && entry != nullptr) ++entries;
  if (entries > kEntriesOfAnEmptyDirectory) {
    LOG_DEBUG("directory: ", path, " is not empty");
    return -1;
  }
  LOG_DEBUG("directory: ", path, " is empty");
  return 0;
}

int FileHelper::deleteDirectory(const std::string& path) {
  const int result = rmdir(path.c_str());
  if (result != 0) {
    LOG_WARNING("could not delete director: ", path);
  } else {
    LOG_DEBUG("delete director: ", path, " success");
  }
  return result;
}

namespace {

/// Puts one entry where its kind belongs, and goes down into a directory.
int AddEntry(const std::string& root, const std::string& entryPath, DirectoryContent& content) {
  struct stat info {};
  if (lstat((root + entryPath).c_str(), &info) != 0) {
    LogLine(Priority::kWarning, LOG_SITE_OF("getDirectoryContent"), "error lstat for ", root + entryPath);
    return -1;
  }
  if (S_ISDIR(info.st_mode)) {
    content.directories.push_back(entryPath);
    return getDirectoryContent(root, entryPath, content);
  }
  if (S_ISREG(info.st_mode)) {
    content.files.push_back(entryPath);
  } else if (S_ISLNK(info.st_mode)) {
    content.links.push_back(entryPath);
  } else {
    content.others.push_back(entryPath);
  }
  return 0;
}

bool IsSelfOrParent(std::string_view name) {
  return name == "." || name == "..";
}

}  // namespace

int getDirectoryContent(const std::string& root, const std::string& relative, DirectoryContent& content) {
  const std::string path = root + relative;
  if (CheckDirectory(LOG_SITE, path, "directory: ") != 0) return -1;
  const Directory directory(opendir(path.c_str()));
  if (!directory) {
    LOG_WARNING("opendir could not open directory: ", path);
    return -1;
  }
  dirent* entry = nullptr;
  int error = 0;
  while ((error = ReadDir(directory.get(), &entry)) == 0 && entry != nullptr) {
    if (IsSelfOrParent(entry->d_name)) continue;
    if (AddEntry(root, relative + "/" + entry->d_name, content) != 0) return -1;
  }
  if (error != 0) {
    LOG_WARNING("could not read directory: ", path);
    return -1;
  }
  if (relative.empty()) LOG_DEBUG("get directory: ", path, " content success");
  return 0;
}

int FileHelper::deleteDirectoryContent(const std::string& path) {
  if (CheckDirectory(LOG_SITE, path) != 0) return -1;
  DirectoryContent content;
  const int listed = getDirectoryContent(path, "", content);
  if (listed != 0) return listed;
  if (!content.others.empty()) {
    LOG_WARNING("directory: ", path, " contains other content except directories, files and links");
    return -1;
  }
  int result = 0;
  const auto removeEntry = [&](const std::string& entry, const char* failure) {
    if (std::remove((path + entry).c_str()) == 0) return;
    LogLine(Priority::kWarning, LOG_SITE_OF("deleteDirectoryContent"), failure, path + entry);
    result = -1;
  };
  for (const auto& entry : content.files) removeEntry(entry, "could not delete file: ");
  for (const auto& entry : content.links) removeEntry(entry, "could not delete link: ");
  // Children were listed after their parents and have to go before them.
  for (auto entry = content.directories.rbegin(); entry != content.directories.rend(); ++entry) {
    removeEntry(*entry, "could not delete directory: ");
  }
  return result;
}

namespace {

/// @param role  "src" or "dst".
int CheckCopyEnd(const std::string& path, const char* role) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) {
    LogLine(Priority::kWarning, LOG_SITE_OF("copyDirectoryContent"), "could not take info (lstat) about ", role,
            " directory: ", path);
    return -1;
  }
  if (!S_ISDIR(info.st_mode)) {
    LogLine(Priority::kWarning, LOG_SITE_OF("copyDirectoryContent"), role, ": ", path, "is not a directory");
    return -1;
  }
  return 0;
}

int CopyOneDirectory(const std::string& from, const std::string& to) {
  struct stat info {};
  if (lstat(from.c_str(), &info) != 0) {
    LogLine(Priority::kWarning, LOG_SITE_OF("copyDirectoryContent"), "error lstat for src directory: ", from);
    return -1;
  }
  if (Exists(to)) {
    LogLine(Priority::kDebug, LOG_SITE_OF("copyDirectoryContent"), "directory: ", to, " exist");
    return 0;
  }
  if (mkdir(to.c_str(), info.st_mode) != 0) {
    LogLine(Priority::kWarning, LOG_SITE_OF("copyDirectoryContent"), "could not create dst directory: ", to);
    return -1;
  }
  LogLine(Priority::kDebug, LOG_SITE_OF("copyDirectoryContent"), "directory: ", to, " created");
  return 0;
}

/// @param kind  "file" or "link".
int CopyOneFile(FileHelper& helper, const char* kind, const std::string& from, const std::string& to) {
  if (!Exists(from)) {
    LogLine(Priority::kWarning, LOG_SITE_OF("copyDirectoryContent"), "error lstat for src ", kind, ": ", from);
    return -1;
  }
  if (helper.copyFile(from, to) != 0) {
    LogLine(Priority::kWarning, LOG_SITE_OF("copyDirectoryContent"), "copy ", kind, ": ", from, " to: ", to, " failed");
    return -1;
  }
  return 0;
}

}  // namespace

int FileHelper::copyDirectoryContent(const std::string& src, const std::string& dst) {
  if (CheckCopyEnd(src, "src") != 0 || CheckCopyEnd(dst, "dst") != 0) return -1;
  DirectoryContent content;
  if (getDirectoryContent(src, "", content) != 0) {
    LOG_WARNING("could not get directory: ", src, " contents info");
    return -1;
  }
  for (const auto& entry : content.directories) {
    if (CopyOneDirectory(src + entry, dst + entry) != 0) return -1;
  }
  for (const auto& entry : content.files) {
    if (CopyOneFile(*this, "file", src + entry, dst + entry) != 0) return -1;
  }
  for (const auto& entry : content.links) {
    if (CopyOneFile(*this, "link", src + entry, dst + entry) != 0) return -1;
  }
  LOG_DEBUG("copy directory: ", src, " content\n  to directory: ", dst, " success");
  return 0;
}

}  // namespace zav::common
