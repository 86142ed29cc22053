#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "faults/disk/StorageFiles.h"
#include "faults/disk/SystemCallTracer.h"

namespace zav::test {

/// Something that happened to the files in the storage directory, or a note of the test's among that.
struct DiskEvent {
  enum class Kind { kCreate, kWrite, kTruncate, kSyncFile, kSyncDirectory, kRename, kUnlink, kNote };

  Kind kind;
  /// The file, whatever it is called: the order in which it was first seen. Of kNote the note.
  int file = -1;
  /// The name; of kRename the new one.
  std::string name = {};
  /// Of kRename.
  std::string oldName = {};
  /// Of kWrite where, of kTruncate the new size.
  size_t offset = 0;
  std::string data = {};
};

/// Records what a traced process does to the files in the storage directory.
class DiskRecorder {
 public:
  /// @param before  the files when the process has not yet opened one.
  explicit DiskRecorder(const Files& before);

  /// Traces the process to its end.
  void Run(SystemCallTracer& process);
  /// Puts a note among the events, while the process runs. Any thread.
  void Note(int number);

  const std::vector<DiskEvent>& Events() const { return events; }
  /// Why the events do not tell all; empty when they do.
  const std::string& Problem() const { return problem; }

 private:
  void See(const SystemCall& call, const SystemCallTracer& process);
  void SeeUnknown(const SystemCall& call, const SystemCallTracer& process);
  void Open(const SystemCall& call, const SystemCallTracer& process);
  void Rename(const std::string& from, const std::string& to);
  void Unlink(const std::string& path);
  void Work(const SystemCall& call, const SystemCallTracer& process, int file);
  std::string Written(const SystemCall& call, const SystemCallTracer& process);
  void Write(const SystemCall& call, const SystemCallTracer& process, int file);
  void Add(DiskEvent event);

  std::mutex mutex;
  std::vector<DiskEvent> events;
  std::string problem;
  /// By their names.
  std::map<std::string, int> files;
  /// By their descriptors.
  std::map<int, int> open;
  std::map<int, size_t> positions;
  int last = -1;
};

/// The disk as the power loss finds it: what is on it for good, and what was not yet synced.
///
/// What is on it for good: the data and the size of a file when that file was synced, the names in the directory when
/// the directory was. That is the pessimistic reading; a file that was made and synced may still lack its name.
class Disk {
 public:
  explicit Disk(const Files& files);

  void Apply(const DiskEvent& event);

  /// What becomes of something that was not synced.
  class Fate {
   public:
    virtual ~Fate() = default;
    virtual bool KeepsName() = 0;
    virtual bool KeepsTruncation() = 0;
    virtual bool KeepsSector() = 0;
    /// Whether a file that lost the end of its data is as long as if it had not.
    virtual bool KeepsSize() { return false; }
  };
  /// The files after the power is back.
  Files After(Fate& fate) const;

 private:
  struct Change {
    bool isTruncation;
    size_t offset;
    std::string data;
  };
  struct File {
    std::string durable;
    std::vector<Change> pending;
  };

  static std::string Content(const File& file, Fate& fate);
  std::map<std::string, int> Names(Fate& fate) const;

  std::vector<File> contents;
  std::map<std::string, int> names;
  std::vector<DiskEvent> pendingNames;
};

/// Everything, or nothing, of a kind is kept.
class PlainFate : public Disk::Fate {
 public:
  PlainFate(bool keepsNames, bool keepsData) : names(keepsNames), data(keepsData) {}
  bool KeepsName() override { return names; }
  bool KeepsTruncation() override { return data; }
  bool KeepsSector() override { return data; }

 private:
  bool names;
  bool data;
};

/// Each is kept with a probability that is itself drawn, so that all of few and few of many come up.
class RandomFate : public Disk::Fate {
 public:
  explicit RandomFate(std::mt19937& generator);
  bool KeepsName() override { return Draw(namesPerMille); }
  bool KeepsTruncation() override { return Draw(dataPerMille); }
  bool KeepsSector() override { return Draw(dataPerMille); }
  bool KeepsSize() override { return Draw(dataPerMille); }

 private:
  bool Draw(unsigned perMille) { return random() % kMille < perMille; }
  static constexpr unsigned kMille = 1000;

  std::mt19937& random;
  unsigned namesPerMille;
  unsigned dataPerMille;
};

}  // namespace zav::test
