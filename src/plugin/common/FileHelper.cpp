#include "common/FileHelper.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <new>
#include <string_view>

#include "common/Descriptor.h"
#include "common/Log.h"

namespace zav::common {
namespace {

constexpr mode_t kDirectoryMode = 0775;
constexpr mode_t kPermissionBits = 0777;
constexpr mode_t kFileMode = 0666;
constexpr size_t kReadSize = 4096;
constexpr size_t kCopySize = 65'536;
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

/// Whether a path leads to what may not be opened as a file: a pipe would wait for its other end, and a device may have
/// no end.
bool IsPipeOrDevice(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode);
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

/// Whether one file is as long as another.
bool IsAsLong(const std::string& path, const std::string& as) {
  struct stat read {};
  struct stat written {};
  return stat(as.c_str(), &read) == 0 && stat(path.c_str(), &written) == 0 && read.st_size == written.st_size;
}

/// Streams the whole of `src` into `to`, opened on `path`, and closes it. A stream does not always tell a full disk
/// from success (the last bytes go out at the close), so the sizes have the last word.
bool StreamWhole(std::ifstream& from, const std::string& src, std::ofstream& to, const std::string& path) {
  // An empty source would count as a failure of the stream.
  if (from.peek() != std::ifstream::traits_type::eof()) to << from.rdbuf();
  to.close();
  return IsAsLong(path, src);
}

/// Calls until no signal interrupts it. @return what it gave.
template <class Call>
ssize_t Uninterrupted(Call call) {
  ssize_t result = 0;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

bool WriteWhole(int to, const char* bytes, ssize_t size) {
  while (size > 0) {
    const ssize_t count = Uninterrupted([&] { return write(to, bytes, static_cast<size_t>(size)); });
    if (count <= 0) return false;
    bytes += count;
    size -= count;
  }
  return true;
}

/// Copies all that is left of one file to another one.
bool CopyRest(int from, int to) {
  // Not on the stack, of which a thread's end takes the pages: the kernel would have to find new ones for each copy.
  const std::unique_ptr<char[]> chunk(new (std::nothrow) char[kCopySize]);
  if (!chunk) return false;
  ssize_t count = 0;
  while ((count = Uninterrupted([&] { return read(from, chunk.get(), kCopySize); })) > 0) {
    if (!WriteWhole(to, chunk.get(), count)) return false;
  }
  return count == 0;
}

/// What came of writing a file beside another one.
enum class Beside { kDone, kNotPossible, kNotWhole };

/// Makes a file that is not there yet; what is of its name goes. Nobody else may see into it.
int MakeNew(const std::string& path) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
  const int file = open(path.c_str(), kFlags, S_IRUSR | S_IWUSR);
  if (file != -1 || errno != EEXIST || unlink(path.c_str()) != 0) return file;
  return open(path.c_str(), kFlags, S_IRUSR | S_IWUSR);
}

/// Writes `from` to a new file beside `dst` and puts it in the place of that in one step. Until it has the permissions
/// of the source, nobody else is to see the content.
Beside WriteBeside(int from, const std::string& dst) {
  const std::string path = dst + ".new";
  Descriptor to(MakeNew(path));
  if (to.get() == -1) return Beside::kNotPossible;
  // Some file systems tell of a failed write at the close alone.
  const bool whole = CopyRest(from, to.get()) && close(to.release()) == 0;
  if (whole && rename(path.c_str(), dst.c_str()) == 0) return Beside::kDone;
  unlink(path.c_str());
  return whole ? Beside::kNotPossible : Beside::kNotWhole;
}

/// Whether, after that, `src` is to be written over the content of `dst`: only where there is room for it so, and what
/// failed before was not the writing but the room for a second file.
bool IsToBeOverwritten(Beside result, const std::string& src, const std::string& dst) {
  struct stat content {};
  struct stat place {};
  struct statvfs disk {};
  const std::string directory = dst.substr(0, dst.rfind('/') + 1);
  if (stat(src.c_str(), &content) != 0 || statvfs(directory.c_str(), &disk) != 0) return false;
  constexpr unsigned long kStatBlock = 512;
  const auto size = static_cast<unsigned long>(content.st_size);
  const unsigned long free = disk.f_bavail * disk.f_frsize;
  const bool exists = stat(dst.c_str(), &place) == 0;
  const unsigned long old = exists ? static_cast<unsigned long>(place.st_blocks) * kStatBlock : 0;
  return size <= free + old && (result == Beside::kNotPossible || size > free);
}

/// A file system that cannot do it says so, and is none the worse.
bool Sync(const std::string& path, int flags) {
  const Descriptor file(open(path.c_str(), flags | O_CLOEXEC));
  return file.get() != -1 && (fsync(file.get()) == 0 || errno == EINVAL || errno == EROFS);
}

bool SyncDirectoryOf(const std::string& path) {
  return Sync(path.substr(0, path.rfind('/') + 1), O_RDONLY | O_DIRECTORY);
}

/// Every way of copying is one operation in the log.
#define COPY_SITE LOG_SITE_OF("copyFile")

void CopyPermissions(const std::string& path, mode_t mode) {
  const mode_t bits = mode & kPermissionBits;
  if (chmod(path.c_str(), bits) != 0) {
    LogLine(Priority::kWarning, COPY_SITE, "chmod ", bits, "  failed");
  } else {
    LogLine(Priority::kDebug, COPY_SITE, "chmod ", bits, " success");
  }
}

template <class... Pieces>
int Fail(const LogSite& site, const Pieces&... pieces) {
  LogLine(Priority::kWarning, site, pieces...);
  return -1;
}

/// The content of `src` takes the place of that of `dst`, which is truncated or made.
int OverwriteByName(const std::string& src, const std::string& dst) {
  std::ifstream from(src, std::ios::in);
  std::ofstream to(dst, std::ios::out);
  if (!from.is_open()) return Fail(COPY_SITE, "could not open src: ", src);
  if (!to.is_open()) return Fail(COPY_SITE, "could not open or create dst: ", dst);
  if (StreamWhole(from, src, to, dst)) return 0;
  return Fail(COPY_SITE, "could not copy the whole of src: ", src, " to dst: ", dst);
}

/// The same from an open file, which is read from its beginning.
int Overwrite(int from, const std::string& src, const std::string& dst) {
  Descriptor to(open(dst.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
  if (to.get() == -1) return Fail(COPY_SITE, "could not open or create dst: ", dst);
  if (lseek(from, 0, SEEK_SET) == 0 && CopyRest(from, to.get()) && close(to.release()) == 0) return 0;
  return Fail(COPY_SITE, "could not copy the whole of src: ", src, " to dst: ", dst);
}

/// What stands in the place of a file that is to be replaced.
enum class Place { kFree, kFile, kReadOnlyFile, kPipeOrDevice, kOther };

Place Look(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return errno == ENOENT ? Place::kFree : Place::kOther;
  if (!S_ISREG(info.st_mode)) return IsPipeOrDevice(path) ? Place::kPipeOrDevice : Place::kOther;
  return faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 ? Place::kFile : Place::kReadOnlyFile;
}

/// The same in one step where that can be.
int Replace(const std::string& src, const std::string& dst) {
  const Place place = Look(dst);
  if (place == Place::kPipeOrDevice || IsPipeOrDevice(src)) {
    return Fail(COPY_SITE, "could not replace dst: ", dst, " by src: ", src);
  }
  const Descriptor from(open(src.c_str(), O_RDONLY | O_CLOEXEC));
  // What cannot be read does not cost the destination its content.
  if (from.get() == -1) return Fail(COPY_SITE, "could not open src: ", src);
  if (place != Place::kFree && place != Place::kFile) return Overwrite(from.get(), src, dst);
  const Beside beside = WriteBeside(from.get(), dst);
  if (beside == Beside::kDone) return 0;
  if (IsToBeOverwritten(beside, src, dst)) return Overwrite(from.get(), src, dst);
  return Fail(COPY_SITE, "could not replace dst: ", dst, " by src: ", src);
}

/// @param place  puts the content of `src` in the place of `dst`. @return 0, or -1, which it logged.
int Copy(const std::string& src, const std::string& dst, int (*place)(const std::string&, const std::string&)) {
  struct stat info {};
  if (lstat(src.c_str(), &info) != 0) return Fail(COPY_SITE, "could not take info (lstat) about src: ", src);
  if (!IsFileOrLink(info.st_mode)) return Fail(COPY_SITE, "src: ", src, " is not a file or link");
  LogLine(Priority::kDebug, COPY_SITE, "file: ", src, " size is ", info.st_size, " bytes");
  if (place(src, dst) != 0) return -1;
  LogLine(Priority::kDebug, COPY_SITE, "copy from file: ", src, "\n       to file: ", dst, "\nsuccess");
  CopyPermissions(dst, info.st_mode);
  return 0;
}

}  // namespace

int FileHelper::copyFile(const std::string& src, const std::string& dst) {
  return Copy(src, dst, OverwriteByName);
}

int FileHelper::replaceFile(const std::string& src, const std::string& dst) {
  return Copy(src, dst, Replace);
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

void FileHelper::discardPipeOrDevice(const std::string& path) {
  if (IsPipeOrDevice(path)) unlink(path.c_str());
}

bool FileHelper::isPipeOrDevice(const std::string& path) {
  return IsPipeOrDevice(path);
}

bool FileHelper::fileExist(const std::string& path) {
  return Exists(path);
}

bool FileHelper::fileEmpty(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size == 0;
}

bool FileHelper::fileReadable(const std::string& path) {
  if (IsPipeOrDevice(path)) return false;
  std::ifstream file(path, std::ios::in);
  std::array<char, kReadSize> chunk;
  while (file.read(chunk.data(), chunk.size())) {
  }
  return file.eof() && !file.bad();
}

bool FileHelper::sameContent(const std::string& path, const std::string& other) {
  if (IsPipeOrDevice(path) || IsPipeOrDevice(other)) return false;
  std::ifstream one(path, std::ios::in);
  std::ifstream two(other, std::ios::in);
  std::array<char, kReadSize> chunk;
  std::array<char, kReadSize> counterpart;
  do {
    one.read(chunk.data(), chunk.size());
    two.read(counterpart.data(), counterpart.size());
    if (one.gcount() != two.gcount()) return false;
    if (!std::equal(chunk.data(), chunk.data() + one.gcount(), counterpart.data())) return false;
  } while (one && two);
  return one.eof() && !one.bad() && two.eof() && !two.bad();
}

bool FileHelper::makeMark(const std::string& path) {
  const Descriptor mark(open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, kFileMode));
  // A pipe that nobody reads marks as well as a file, and is not waited for.
  return (mark.get() != -1 || errno == ENXIO) && SyncDirectoryOf(path);
}

bool FileHelper::removeMark(const std::string& path) {
  return unlink(path.c_str()) == 0 ? SyncDirectoryOf(path) : errno == ENOENT;
}

bool FileHelper::syncFile(const std::string& path) {
  return !IsPipeOrDevice(path) && Sync(path, O_RDONLY) && SyncDirectoryOf(path);
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
