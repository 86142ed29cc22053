#pragma once

#include <optional>
#include <pyxclient/pyxclient.hpp>
#include <string>
#include <vector>

#include "CursorFile.h"
#include "Selection.h"

namespace zav::pyxctl {

/// The log as it grows, from its beginning or from where a cursor file says on, as far as a selection holds it.
class Reading {
 public:
  /// @param cursorPath  empty for none.
  /// @throws pyxclient::Error of `kOutOfRange` where the file holds no cursor, and what reading it throws.
  Reading(pyxclient::Client& client, const Selection& selection, const std::string& cursorPath);

  /// The next record that the selection holds; nothing where there is none now. What a failed request throws leaves the
  /// reading where it was.
  std::optional<pyxclient::Record> Next();

  /// Says on standard error why records may be missing, since this was last called: the log was emptied, numbered anew,
  /// or dropped them unread; or no answer can hold them.
  void Complain();

  /// Remembers that everything that was given is written out. It comes after the flush: what is cut short in between is
  /// given twice, and nothing is lost.
  void Keep();

 private:
  const Selection& selection_;
  std::optional<CursorFile> file_;
  pyxclient::Log walk_;
  std::string kept_;
  std::size_t tooLarge_ = 0;
};

}  // namespace zav::pyxctl
