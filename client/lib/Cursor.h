#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Client.h"

namespace zav::client {

/// Where a walk stands: at a record, or before the oldest one.
struct Cursor {
  /// That of the record; the walk begins above it. -1: before the oldest.
  std::int32_t index = -1;
  std::int32_t timestamp = 0;
  /// A check of the record but for its index, which may change; nothing when the record could not be read.
  std::optional<std::uint64_t> check;

  static Cursor At(const Record& record);

  /// Whether a record is the one that the cursor stands at, whatever its index is.
  bool IsAt(const Record& record) const;

  /// One word of ASCII and a zero byte.
  /// @param text  has room for PYX_CURSOR_SIZE bytes.
  void Write(char* text) const noexcept;
  /// Nothing for what is no text of a cursor; an empty one stands before the oldest record.
  static std::optional<Cursor> Parse(std::string_view text);

  bool operator==(const Cursor&) const = default;
};

}  // namespace zav::client
