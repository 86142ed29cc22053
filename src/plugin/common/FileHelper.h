#pragma once

#include <dirent.h>

#include <string>
#include <vector>

namespace zav::common {

/// Operations on directories. All return 0, or -1 with a warning in the log; none throws for what the file system
/// does. No state: any thread may use an object of its own.
class IFileHelper {
 public:
  virtual ~IFileHelper() = default;

  /// Whether `path` is a directory: 0 yes, -1 no. A symbolic link is not followed.
  virtual int directoryExist(const std::string& path) = 0;
  /// Whether the directory holds nothing: 0 yes, -1 no, or it cannot be opened.
  virtual int directoryEmpty(const std::string& path) = 0;
  /// Makes a directory (mode 0775 less the process's mask) where there is none. Only the last component is made.
  virtual int createDirectory(const std::string& path) = 0;
  /// Removes an empty directory.
  virtual int deleteDirectory(const std::string& path) = 0;
  /// Copies the tree below `src` into the existing directory `dst`; links become files with their target's content,
  /// other kinds are passed over. The first failure ends it and leaves what was copied.
  virtual int copyDirectoryContent(const std::string& src, const std::string& dst) = 0;
  /// Empties a directory. A tree with anything else than directories, files and links is left whole; one entry that
  /// cannot be removed does not keep the rest.
  virtual int deleteDirectoryContent(const std::string& path) = 0;
};

/// The plug-in's file operations, each logged under its own name.
class FileHelper : public IFileHelper {
 public:
  int directoryExist(const std::string& path) override;
  int directoryEmpty(const std::string& path) override;
  int createDirectory(const std::string& path) override;
  int deleteDirectory(const std::string& path) override;
  int copyDirectoryContent(const std::string& src, const std::string& dst) override;
  int deleteDirectoryContent(const std::string& path) override;

  /// Copies a file and its permission bits over `dst`, which is truncated or made. The copy is not synced to the disk.
  ///
  /// @param src  a regular file, or a symbolic link, which is copied as a file with its target's content.
  /// @return 0, or -1: `dst` may then hold a part of the content.
  int copyFile(const std::string& src, const std::string& dst);

  /// The same in one step, where `dst` is a regular file or missing: whenever the process ends, it holds the old
  /// content or the new one. Fails where either is a pipe or a device. The copy is written to `dst` + ".new", whatever
  /// that was; where there is no room for it but enough in the place of the old content, that is overwritten after all.
  int replaceFile(const std::string& src, const std::string& dst);

  /// Removes a file or an empty directory. @return 0 or -1, logged either way.
  int deleteFile(const std::string& path);

  // What follows logs nothing.

  /// Removes a file if there is one.
  void discardFile(const std::string& path);
  /// Removes a pipe, a device or a socket, or a link to one, that has a file's name.
  void discardPipeOrDevice(const std::string& path);
  /// Whether it is one of those: opening a pipe waits for its other end, and a device may have no end.
  bool isPipeOrDevice(const std::string& path);
  /// Whether there is anything of that name. A symbolic link is not followed.
  bool fileExist(const std::string& path);
  /// Whether it is a file, or a link to one, without a byte.
  bool fileEmpty(const std::string& path);
  /// Whether a file can be read to its end; a pipe, a device or a socket cannot.
  bool fileReadable(const std::string& path);
  /// Whether two files can be read and hold the same bytes.
  bool sameContent(const std::string& path, const std::string& other);
  /// Makes an empty file, or removes one, that is to be there, or gone, after a power loss too. `path` is absolute.
  /// @return whether it is so.
  bool makeMark(const std::string& path);
  bool removeMark(const std::string& path);
  /// Brings a file and its name to the disk. `path` is absolute. @return whether it did.
  bool syncFile(const std::string& path);
};

/// The entries below a directory, by kind; each as a path relative to the listed root, beginning with "/".
struct DirectoryContent {
  /// Each before its own content.
  std::vector<std::string> directories;
  std::vector<std::string> files;
  /// Symbolic links, not followed.
  std::vector<std::string> links;
  /// Devices, sockets, pipes.
  std::vector<std::string> others;
};

/// Lists the tree below `root` + `relative`.
///
/// @param relative  empty; the listing itself goes down with it.
/// @param content   the entries are appended to it; after a failure it holds what was listed by then.
/// @return 0, or -1 with a warning in the log.
int getDirectoryContent(const std::string& root, const std::string& relative, DirectoryContent& content);

}  // namespace zav::common
