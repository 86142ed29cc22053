#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Client.h"
#include "Cursor.h"
#include "Deadline.h"

namespace zav::client {

/// Reads the log in pieces that fit into one answer, and finds its place again when the log changes between them.
///
/// Each piece is asked for from the record on that the walk stands at: whether that is there still tells whether the
/// log was emptied or numbered anew. After a failure the walk stands where it stood.
class Walk {
 public:
  enum class Step {
    kRecord,
    /// There is none, now.
    kEnd,
    /// The log was emptied, numbered anew, or has dropped records that the walk has not given; the next step goes on.
    kChanged,
  };

  /// @param walkClient  must outlive this. Throws `kOutOfRange` for what is no query.
  Walk(const Client& walkClient, const LogQuery& walkQuery);
  /// Over what came after a cursor.
  Walk(const Client& walkClient, const Cursor& cursor);

  /// Throws `Error` at the latest when the client's time for a call is over, however many requests it takes.
  Step Next();
  /// The record that the last step gave.
  const Record& Current() const { return piece[next - 1]; }
  /// Where the walk stands.
  const Cursor& Position() const { return position; }
  bool IsReverse() const { return query.reverse; }

 private:
  Step Fetch();
  Step FetchFirst();
  Step FetchBehindPosition();
  Step FetchOneBehindPosition();
  Step TakeBehindPosition(std::vector<Record> records);
  Step FindPosition();
  Step LosePosition();
  Step Take(std::vector<Record> records);

  Piece Ask(std::int32_t startIndex, std::int32_t extra = 0);
  Piece AskFor(std::int32_t startIndex, std::int32_t count, bool reverse);
  [[noreturn]] void PassTooLarge(std::int32_t index);
  bool IsWanted(const Record& record) const;
  /// Whether an index lies behind that of the position, in the direction of the walk.
  bool IsBehind(std::int32_t index) const;

  const Client& client;
  LogQuery query;
  /// That of the step that is being made.
  Deadline deadline;
  Cursor position;
  /// Whether a gap behind the position is a loss: all records are to be given.
  bool isComplete = false;
  bool isOver = false;
  /// Whether this step has looked for the position in the whole log.
  bool hasSearched = false;
  /// Whether there may be records behind the piece: it holds as many as were asked for.
  bool mayHaveMore = true;
  std::int32_t given = 0;
  /// How many records to ask for.
  std::int32_t pieceSize;
  std::vector<Record> piece;
  std::size_t next = 0;
};

}  // namespace zav::client
