#include "faults/disk/DiskLog.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <set>
#include <stdexcept>

#include "support/Device.h"

namespace zav::test {
namespace {

using Kind = DiskEvent::Kind;

constexpr size_t kSector = 512;
/// What the directory itself is among the open files.
constexpr int kDirectoryItself = -2;

/// The name of a file in the storage directory; empty for the directory itself, null elsewhere.
std::optional<std::string> NameOf(const std::string& path) {
  if (!path.starts_with(kStorageDirectory)) return std::nullopt;
  const std::string rest = path.substr(kStorageDirectory.size());
  if (rest.empty() || rest == "/") return "";
  return rest[0] == '/' ? std::optional(rest.substr(1)) : std::nullopt;
}

int Descriptor(const SystemCall& call) {
  return static_cast<int>(call.arguments[0]);
}

std::string PathOf(const SystemCall& call, size_t argument, const SystemCallTracer& process) {
  return process.Text(call.arguments[argument]);
}

#ifndef SYS_open
// 64-bit Arm has none of these, but what takes a directory or flags in their place. No call has a number below 0.
constexpr long SYS_creat = -1;
constexpr long SYS_dup2 = -2;
constexpr long SYS_link = -3;
constexpr long SYS_mkdir = -4;
constexpr long SYS_open = -5;
constexpr long SYS_rename = -6;
constexpr long SYS_rmdir = -7;
constexpr long SYS_symlink = -8;
constexpr long SYS_unlink = -9;
#endif

/// Calls that change a file by its path or its descriptor and that the plug-in has no reason to use: an image without
/// their effect would be wrong.
const std::set<long> kUnknownByDescriptor{SYS_fallocate, SYS_sendfile, SYS_copy_file_range, SYS_splice,  SYS_dup,
                                          SYS_dup2,      SYS_dup3,     SYS_pwritev,         SYS_pwritev2};
/// With the path's place.
const std::map<long, size_t> kUnknownByPath{{SYS_truncate, 0},  {SYS_link, 0},  {SYS_linkat, 1},  {SYS_symlink, 1},
                                            {SYS_symlinkat, 2}, {SYS_mkdir, 0}, {SYS_mkdirat, 1}, {SYS_rmdir, 0}};

struct RenameCall {
  size_t from;
  size_t to;
};
const std::map<long, RenameCall> kRenames{{SYS_rename, {0, 1}}, {SYS_renameat, {1, 3}}, {SYS_renameat2, {1, 3}}};
const std::map<long, size_t> kUnlinks{{SYS_unlink, 0}, {SYS_unlinkat, 1}};
/// Where the path stands, and after it the flags.
const std::map<long, size_t> kOpens{{SYS_open, 0}, {SYS_openat, 1}, {SYS_creat, 0}};

}  // namespace

DiskRecorder::DiskRecorder(const Files& before) {
  for (const auto& [name, content] : before) files[name] = ++last;
}

void DiskRecorder::Run(SystemCallTracer& process) {
  process.Run([](const SystemCall&) {},
              [&](const SystemCall& call) {
                try {
                  if (call.result >= 0) See(call, process);
                } catch (const std::exception& error) {
                  problem = error.what();
                }
              });
}

void DiskRecorder::Note(int number) {
  Add({Kind::kNote, number});
}

void DiskRecorder::Add(DiskEvent event) {
  const std::lock_guard guard(mutex);
  events.push_back(std::move(event));
}

void DiskRecorder::SeeUnknown(const SystemCall& call, const SystemCallTracer& process) {
  const auto byPath = kUnknownByPath.find(call.number);
  const bool hasPath = byPath != kUnknownByPath.end() && NameOf(PathOf(call, byPath->second, process));
  const bool hasDescriptor = kUnknownByDescriptor.contains(call.number) &&
                             (open.contains(Descriptor(call)) || open.contains(static_cast<int>(call.arguments[1])));
  const bool isSharedMap = call.number == SYS_mmap && (call.arguments[3] & MAP_SHARED) != 0 &&
                           (call.arguments[2] & PROT_WRITE) != 0 && open.contains(static_cast<int>(call.arguments[4]));
  if (hasPath || hasDescriptor || isSharedMap) problem = "system call " + std::to_string(call.number) + " of a file";
}

void DiskRecorder::Open(const SystemCall& call, const SystemCallTracer& process) {
  const size_t path = kOpens.at(call.number);
  const auto name = NameOf(PathOf(call, path, process));
  const int descriptor = static_cast<int>(call.result);
  open.erase(descriptor);
  if (!name) return;
  if (name->empty()) {
    open[descriptor] = kDirectoryItself;
    return;
  }
  const auto flags = call.number == SYS_creat ? O_CREAT | O_TRUNC : static_cast<int>(call.arguments[path + 1]);
  const bool isNew = !files.contains(*name);
  if (isNew) {
    files[*name] = ++last;
    Add({Kind::kCreate, last, *name});
  }
  const int file = files[*name];
  if (!isNew && (flags & O_TRUNC) != 0) Add({Kind::kTruncate, file, *name});
  open[descriptor] = file;
  positions[descriptor] = 0;
}

std::string DiskRecorder::Written(const SystemCall& call, const SystemCallTracer& process) {
  const auto size = static_cast<size_t>(call.result);
  if (call.number != SYS_writev) return process.Memory(call.arguments[1], size);
  const std::string list = process.Memory(call.arguments[1], call.arguments[2] * sizeof(iovec));
  std::string data;
  for (size_t at = 0; at < list.size(); at += sizeof(iovec)) {
    iovec piece{};
    std::memcpy(&piece, list.data() + at, sizeof(piece));
    data += process.Memory(reinterpret_cast<std::uint64_t>(piece.iov_base), piece.iov_len);
  }
  return data.substr(0, size);
}

void DiskRecorder::Write(const SystemCall& call, const SystemCallTracer& process, int file) {
  std::string data = Written(call, process);
  if (data.size() != static_cast<size_t>(call.result)) problem = "what was written cannot be read";
  size_t& position = positions[Descriptor(call)];
  const size_t offset = call.number == SYS_pwrite64 ? call.arguments[3] : position;
  if (call.number != SYS_pwrite64) position += data.size();
  Add({Kind::kWrite, file, "", "", offset, std::move(data)});
}

void DiskRecorder::Rename(const std::string& from, const std::string& to) {
  const auto oldName = NameOf(from);
  const auto newName = NameOf(to);
  if (!oldName || !newName) return;
  const int file = files.at(*oldName);
  files.erase(*oldName);
  files[*newName] = file;
  Add({Kind::kRename, file, *newName, *oldName});
}

void DiskRecorder::Unlink(const std::string& path) {
  const auto name = NameOf(path);
  if (!name) return;
  Add({Kind::kUnlink, files.at(*name), *name});
  files.erase(*name);
}

void DiskRecorder::Work(const SystemCall& call, const SystemCallTracer& process, int file) {
  switch (call.number) {
    case SYS_close:
      open.erase(Descriptor(call));
      break;
    case SYS_write:
    case SYS_pwrite64:
    case SYS_writev:
      Write(call, process, file);
      break;
    case SYS_lseek:
      positions[Descriptor(call)] = static_cast<size_t>(call.result);
      break;
    case SYS_ftruncate:
      Add({Kind::kTruncate, file, "", "", call.arguments[1]});
      break;
    case SYS_fsync:
    case SYS_fdatasync:
      Add({file == kDirectoryItself ? Kind::kSyncDirectory : Kind::kSyncFile, file});
      break;
    default:
      break;
  }
}

void DiskRecorder::See(const SystemCall& call, const SystemCallTracer& process) {
  SeeUnknown(call, process);
  if (kOpens.contains(call.number)) return Open(call, process);
  if (const auto rename = kRenames.find(call.number); rename != kRenames.end()) {
    return Rename(PathOf(call, rename->second.from, process), PathOf(call, rename->second.to, process));
  }
  if (const auto unlink = kUnlinks.find(call.number); unlink != kUnlinks.end()) {
    return Unlink(PathOf(call, unlink->second, process));
  }
  const auto file = open.find(Descriptor(call));
  if (file != open.end()) Work(call, process, file->second);
}

Disk::Disk(const Files& files) {
  for (const auto& [name, content] : files) {
    names[name] = static_cast<int>(contents.size());
    contents.push_back({content, {}});
  }
}

void Disk::Apply(const DiskEvent& event) {
  const auto file = static_cast<size_t>(event.file);
  PlainFate kept(true, true);
  switch (event.kind) {
    case Kind::kCreate:
      contents.emplace_back();
      pendingNames.push_back(event);
      break;
    case Kind::kRename:
    case Kind::kUnlink:
      pendingNames.push_back(event);
      break;
    case Kind::kWrite:
      contents.at(file).pending.push_back({false, event.offset, event.data});
      break;
    case Kind::kTruncate:
      contents.at(file).pending.push_back({true, event.offset, ""});
      break;
    case Kind::kSyncFile:
      contents.at(file).durable = Content(contents.at(file), kept);
      contents.at(file).pending.clear();
      break;
    case Kind::kSyncDirectory:
      names = Names(kept);
      pendingNames.clear();
      break;
    case Kind::kNote:
      break;
  }
}

std::map<std::string, int> Disk::Names(Fate& fate) const {
  std::map<std::string, int> after = names;
  for (const DiskEvent& event : pendingNames) {
    if (!fate.KeepsName()) continue;
    // A name that was lost cannot be taken away; the file that got another one is there under that.
    const std::string& gone = event.kind == Kind::kRename ? event.oldName : event.name;
    const auto old = after.find(gone);
    if (event.kind != Kind::kCreate && old != after.end() && old->second == event.file) after.erase(old);
    if (event.kind != Kind::kUnlink) after[event.name] = event.file;
  }
  return after;
}

std::string Disk::Content(const File& file, Fate& fate) {
  std::string content = file.durable;
  size_t wholeSize = content.size();
  for (const Change& change : file.pending) {
    if (change.isTruncation) {
      wholeSize = change.offset;
      if (fate.KeepsTruncation()) content.resize(change.offset);
      continue;
    }
    const size_t end = change.offset + change.data.size();
    wholeSize = std::max(wholeSize, end);
    for (size_t from = change.offset; from < end;) {
      const size_t to = std::min(end, from / kSector * kSector + kSector);
      if (fate.KeepsSector()) {
        if (content.size() < to) content.resize(to);
        content.replace(from, to - from, change.data, from - change.offset, to - from);
      }
      from = to;
    }
  }
  if (content.size() < wholeSize && fate.KeepsSize()) content.resize(wholeSize);
  return content;
}

Files Disk::After(Fate& fate) const {
  Files files;
  for (const auto& [name, file] : Names(fate)) files[name] = Content(contents.at(static_cast<size_t>(file)), fate);
  return files;
}

RandomFate::RandomFate(std::mt19937& generator) : random(generator) {
  constexpr std::array kChances{0U, 100U, 500U, 900U, kMille};
  namesPerMille = kChances[random() % kChances.size()];
  dataPerMille = kChances[random() % kChances.size()];
}

}  // namespace zav::test
