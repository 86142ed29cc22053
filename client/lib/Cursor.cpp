#include "Cursor.h"

#include <charconv>
#include <cstdio>

namespace zav::client {
namespace {

constexpr std::string_view kBegin = "pyx1:";
constexpr char kSeparator = ':';

/// FNV-1a, 64 bits: any record of another text has most likely another value, on every machine.
class Hash {
 public:
  Hash& Add(std::string_view bytes) {
    for (const char byte : bytes) value = (value ^ static_cast<unsigned char>(byte)) * 0x100000001b3U;
    return *this;
  }
  std::uint64_t Value() const { return value; }

 private:
  std::uint64_t value = 0xcbf29ce484222325U;
};

std::uint64_t CheckOf(const Record& record) {
  // The sizes keep "ab", "c" and "a", "bc" apart.
  return Hash()
      .Add(std::to_string(record.timestamp) + " " + std::to_string(record.url.size()) + " ")
      .Add(record.url)
      .Add(record.threat)
      .Value();
}

/// Takes a number and the separator behind it, if any, from the front.
template <class Number>
bool TakeNumber(std::string_view& text, Number& number, int base) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc()) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  if (text.empty()) return true;
  const bool separated = text.front() == kSeparator && text.size() > 1;
  text.remove_prefix(1);
  return separated;
}

}  // namespace

Cursor Cursor::At(const Record& record) {
  return {record.index, record.timestamp, CheckOf(record)};
}

bool Cursor::IsAt(const Record& record) const {
  return check && *check == CheckOf(record) && timestamp == record.timestamp;
}

void Cursor::Write(char* text) const noexcept {
  const char* const begin = kBegin.data();
  if (index < 0) {
    text[0] = '\0';
  } else if (!check) {
    std::snprintf(text, PYX_CURSOR_SIZE, "%s%d:%d", begin, index, timestamp);
  } else {
    const auto number = static_cast<unsigned long long>(*check);
    std::snprintf(text, PYX_CURSOR_SIZE, "%s%d:%d:%016llx", begin, index, timestamp, number);
  }
}

std::optional<Cursor> Cursor::Parse(std::string_view text) {
  if (text.empty()) return Cursor();
  if (!text.starts_with(kBegin)) return std::nullopt;
  text.remove_prefix(kBegin.size());
  Cursor cursor;
  if (!TakeNumber(text, cursor.index, 10) || !TakeNumber(text, cursor.timestamp, 10)) return std::nullopt;
  if (!text.empty() && !TakeNumber(text, cursor.check.emplace(), 16)) return std::nullopt;
  if (!text.empty() || cursor.index < 0) return std::nullopt;
  return cursor;
}

}  // namespace zav::client
