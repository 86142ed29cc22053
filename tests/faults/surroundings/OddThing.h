#pragma once

#include <sys/types.h>

#include <array>
#include <ostream>
#include <string>

namespace zav::test {

/// What may stand in the place of a file or a directory.
enum class Kind {
  kMissing,
  kEmptyFile,
  kNoise,
  kDirectory,
  kFullDirectory,
  kDanglingLink,
  kLinkToFile,
  kLinkToDirectory,
  kLinkToItself,
  /// Where the thing itself was moved to.
  kLinkToTheThing,
  /// It gives zeros without end.
  kLinkToDevice,
  /// Nobody is at its other end, so that who opens it waits.
  kLinkToPipe,
  kPipe,
  kSocket,
  kDevice,
  kOtherOwner,
  kNoRights
};

inline constexpr std::array kAllKinds{Kind::kMissing,        Kind::kEmptyFile,       Kind::kNoise,
                                      Kind::kDirectory,      Kind::kFullDirectory,   Kind::kDanglingLink,
                                      Kind::kLinkToFile,     Kind::kLinkToDirectory, Kind::kLinkToItself,
                                      Kind::kLinkToTheThing, Kind::kLinkToDevice,    Kind::kLinkToPipe,
                                      Kind::kPipe,           Kind::kSocket,          Kind::kDevice,
                                      Kind::kOtherOwner,     Kind::kNoRights};

std::ostream& operator<<(std::ostream& out, Kind kind);

/// Whether it is what was there before, but for its owner, its rights or the way to it.
bool IsTheThingItself(Kind kind);
/// Whether it means something only to who has no rights beyond the permission bits.
bool ConcernsRights(Kind kind);

/// Puts something odd in the place of a file or a directory, or of nothing, and keeps what was there beside it.
class OddThing {
 public:
  /// @throws std::system_error where this process may not make such a thing.
  OddThing(std::string path, Kind kind);

  /// Puts back what was there before, unless somebody else has put something in the place of the odd thing, which stays
  /// then, or has written to a file through the odd link, which takes the link's place.
  /// @return whether what was there before is there again.
  bool Mend();
  /// Puts it back whatever is there now.
  void MendAnyway();

  /// Undoes what an object left that was not mended.
  static void CleanUp(const std::string& path);

 private:
  struct Identity {
    dev_t device = 0;
    ino_t file = 0;
    bool operator==(const Identity&) const = default;
  };

  bool WasWrittenThrough() const;
  static Identity IdentityOf(const std::string& path);

  std::string path;
  Kind kind;
  /// Of the odd thing; nothing's is all zero.
  Identity odd;
};

}  // namespace zav::test
