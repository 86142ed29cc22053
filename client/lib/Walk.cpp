#include "Walk.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <utility>

namespace zav::client {
namespace {

constexpr std::int32_t kFirstPieceSize = 64;
constexpr std::int32_t kLargestPieceSize = 1024;
constexpr std::int32_t kNoLimit = 0;
constexpr std::int32_t kFromTheEnd = -1;

}  // namespace

Walk::Walk(const Client& walkClient, const LogQuery& walkQuery)
    : client(walkClient), query(walkQuery), deadline(client.MakeDeadline()), pieceSize(kFirstPieceSize) {
  Check(query.range);
  if (query.maxCount < 0) throw Error(ErrorKind::kOutOfRange, "the number of records is negative");
  if (query.startIndex < kFromTheEnd) throw Error(ErrorKind::kOutOfRange, "the index to begin at is negative");
  if (query.maxCount > 0) pieceSize = std::min(pieceSize, query.maxCount);
}

Walk::Walk(const Client& walkClient, const Cursor& cursor) : Walk(walkClient, LogQuery()) {
  position = cursor;
  isComplete = true;
}

Walk::Step Walk::Next() {
  deadline = client.MakeDeadline();
  hasSearched = false;
  for (;;) {
    if (isOver || (query.maxCount > 0 && given == query.maxCount)) return Step::kEnd;
    while (next < piece.size()) {
      const Record& record = piece[next++];
      position = Cursor::At(record);
      if (!IsWanted(record)) continue;
      ++given;
      return Step::kRecord;
    }
    const Step step = std::exchange(mayHaveMore, true) ? Fetch() : Step::kEnd;
    if (step == Step::kEnd) mayHaveMore = true;
    if (step != Step::kRecord) return step;
  }
}

/// @return `kRecord` when there is a piece to give from.
Walk::Step Walk::Fetch() {
  return position.index < 0 ? FetchFirst() : FetchBehindPosition();
}

Walk::Step Walk::FetchFirst() {
  Piece answer = Ask(query.startIndex);
  if (answer.isTooLarge) PassTooLarge(answer.lastIndex);
  return Take(std::move(answer.records));
}

Walk::Step Walk::FetchBehindPosition() {
  if (query.reverse && position.index == 0) return Step::kEnd;
  Piece answer = Ask(position.index, 1);
  if (answer.isTooLarge) return FetchOneBehindPosition();
  if (!answer.records.empty()) {
    const std::int32_t index = answer.records.front().index;
    if (index == position.index || IsBehind(index)) return TakeBehindPosition(std::move(answer.records));
    // An index above the log's greatest one, as settings may make it, is no place to begin at: all is to be read.
    answer = AskFor(kFromTheEnd, kNoLimit, query.reverse);
    if (answer.isTooLarge) throw Error(ErrorKind::kMalformed, "the log is larger than an answer can be");
    std::erase_if(answer.records,
                  [this](const Record& record) { return record.index != position.index && !IsBehind(record.index); });
    if (!answer.records.empty()) return TakeBehindPosition(std::move(answer.records));
  }
  return query.reverse ? Step::kEnd : FindPosition();
}

/// Where the record at the position is too large to come along. It may be one that no answer can hold.
Walk::Step Walk::FetchOneBehindPosition() {
  if (!query.reverse && position.index == std::numeric_limits<std::int32_t>::max()) return Step::kEnd;
  Piece answer = AskFor(position.index + (query.reverse ? -1 : 1), 1, query.reverse);
  if (answer.isTooLarge) PassTooLarge(answer.lastIndex);
  if (!answer.records.empty() && IsBehind(answer.records.front().index)) return Take(std::move(answer.records));
  if (query.reverse) return Step::kEnd;
  const Piece here = AskFor(position.index, 1, false);
  const bool isThere = here.isTooLarge || (!here.records.empty() && position.IsAt(here.records.front()));
  return isThere ? Step::kEnd : FindPosition();
}

/// @param records  not empty; the first is at the position or behind it.
Walk::Step Walk::TakeBehindPosition(std::vector<Record> records) {
  const Record& first = records.front();
  if (first.index != position.index) {
    const bool isGap = isComplete && first.index != position.index + 1;
    const Step taken = Take(std::move(records));
    return isGap ? Step::kChanged : taken;
  }
  if (position.check && !position.IsAt(first)) return query.reverse ? LosePosition() : FindPosition();
  records.erase(records.begin());
  return Take(std::move(records));
}

/// Looks for the record of the position under another index, from the newest on.
Walk::Step Walk::FindPosition() {
  // What was found under an index and is not there when it is asked for comes from a log that changes all the time.
  if (std::exchange(hasSearched, true)) return LosePosition();
  bool isEmpty = true;
  for (std::int32_t start = kFromTheEnd;;) {
    const Piece answer = AskFor(start, pieceSize, true);
    if (answer.isTooLarge && pieceSize > 1) {
      pieceSize /= 2;
      continue;
    }
    const auto found = std::find_if(answer.records.begin(), answer.records.end(),
                                    [this](const Record& record) { return position.IsAt(record); });
    if (found != answer.records.end()) {
      position.index = found->index;
      query.startIndex = kFromTheEnd;
      return Fetch();
    }
    // Nothing at all tells nothing: what the position stands at may have grown too old.
    if (answer.records.empty() && !answer.isTooLarge) return isEmpty ? Step::kEnd : LosePosition();
    isEmpty = false;
    const std::int32_t last = answer.isTooLarge ? answer.lastIndex : answer.records.back().index;
    if (last <= 0) return LosePosition();
    start = last - 1;
  }
}

/// Goes on with the oldest record: those before the position are gone with it.
Walk::Step Walk::LosePosition() {
  isOver = query.reverse;
  mayHaveMore = true;
  position = Cursor();
  query.startIndex = kFromTheEnd;
  return Step::kChanged;
}

Walk::Step Walk::Take(std::vector<Record> records) {
  if (records.empty()) return Step::kEnd;
  if (records.size() >= static_cast<std::size_t>(pieceSize)) pieceSize = std::min(2 * pieceSize, kLargestPieceSize);
  piece = std::move(records);
  next = 0;
  return Step::kRecord;
}

/// @param extra  how many records beside those of a piece.
/// @return a piece that is too large only where a single one is.
Piece Walk::Ask(std::int32_t startIndex, std::int32_t extra) {
  for (;;) {
    Piece answer = AskFor(startIndex, pieceSize + extra, query.reverse);
    if (!answer.isTooLarge || pieceSize == 1) return answer;
    pieceSize = std::max(1, pieceSize / 4);
  }
}

Piece Walk::AskFor(std::int32_t startIndex, std::int32_t count, bool reverse) {
  // Also after a request that fails.
  mayHaveMore = true;
  Piece answer = client.GetPiece({query.range, count, startIndex, reverse}, deadline);
  const bool isFull = count != kNoLimit && answer.records.size() >= static_cast<std::size_t>(count);
  mayHaveMore = isFull || answer.isTooLarge;
  return answer;
}

void Walk::PassTooLarge(std::int32_t index) {
  position = {index, 0, std::nullopt};
  throw Error(ErrorKind::kTooLarge, "a record of the log is larger than an answer can be");
}

bool Walk::IsWanted(const Record& record) const {
  if (record.timestamp < query.range.from || record.timestamp > query.range.to) return false;
  return query.reverse || record.index >= query.startIndex;
}

bool Walk::IsBehind(std::int32_t index) const {
  return query.reverse ? index < position.index : index > position.index;
}

}  // namespace zav::client
