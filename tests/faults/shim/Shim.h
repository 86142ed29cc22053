#pragma once

/// The library that stands in front of the C library and makes chosen calls of the process fail.
///
/// A test program links it before all else, so that every library of the process finds its functions first: the
/// plug-in, the ones that work for it (the database engine, the JSON library, the C++ library's files and memory), and
/// a sanitizer's own stand-ins, which pass on to it. Until `Arm` it only passes on.
namespace zav::faults {

/// Functions that fail for the same reasons. Those of one group share a counter.
enum class Call : int {
  kOpen,
  kRead,
  kWrite,
  kSync,
  kRename,
  kUnlink,
  kTruncate,
  kChmod,
  kStat,
  kMkdir,
  kSocket,
  kBind,
  kListen,
  kAccept,
  kReceive,
  kSend,
  kFcntl,
  kGetsockopt,
  kSelect,
  kThread,
  /// malloc and its kin; operator new comes down to them.
  kMemory
};
inline constexpr int kCallGroups = static_cast<int>(Call::kMemory) + 1;

/// In the place of an error number: the call succeeds, but moves half of what it was asked to.
inline constexpr int kShort = -1;

/// Calls number `first` to `first + times - 1` of a group fail, counted from 1 over all threads since `Arm`.
struct Fault {
  Call call;
  /// An error number or `kShort`.
  int error;
  long first;
  long times;
};

/// From here on calls are counted, and fail as told. One thread arms and disarms.
void Arm(const Fault& fault);
/// From here on no call fails. @return how many have.
long Disarm();
/// How many calls of a group were counted since the last `Arm`.
long Counted(Call call);

/// Whether sleeps of a counted thread take a thousandth of their time: a service that rests for 30 s before it tries
/// again rests for 30 ms.
void HurrySleeps(bool hurry);

/// While it lives, the calls of this thread are (or are not) counted. A new thread has the say of the one that made it.
/// At first every thread is counted.
class Counting {
 public:
  explicit Counting(bool counted);
  ~Counting();
  Counting(const Counting&) = delete;
  Counting& operator=(const Counting&) = delete;

 private:
  bool previous;
};

}  // namespace zav::faults
