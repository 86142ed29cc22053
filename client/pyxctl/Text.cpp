#include "Text.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cwchar>
#include <cwctype>

namespace zav::pyxctl {
namespace {

struct CodePoints {
  wchar_t first;
  wchar_t last;
};

/// Printable to the system, but able to make a line read as another: soft hyphen, zero width and directional marks,
/// fillers, invisible operators, selectors and tags.
constexpr std::array kDeceptive = {
    CodePoints{0x00AD, 0x00AD},   CodePoints{0x034F, 0x034F},   CodePoints{0x061C, 0x061C},
    CodePoints{0x115F, 0x1160},   CodePoints{0x17B4, 0x17B5},   CodePoints{0x180B, 0x180F},
    CodePoints{0x2800, 0x2800},   CodePoints{0x3164, 0x3164},   CodePoints{0xFE00, 0xFE0F},
    CodePoints{0xFFA0, 0xFFA0},   CodePoints{0x1BCA0, 0x1BCA3}, CodePoints{0x1D173, 0x1D17A},
    CodePoints{0xE0100, 0xE01EF}, CodePoints{0x200B, 0x200F},   CodePoints{0x2028, 0x202E},
    CodePoints{0x2060, 0x206F},   CodePoints{0xFEFF, 0xFEFF},   CodePoints{0xFFF9, 0xFFFB},
    CodePoints{0xE0000, 0xE007F}};

bool IsPrintable(wchar_t c) {
  const auto holds = [c](const CodePoints& range) { return range.first <= c && c <= range.last; };
  return std::iswprint(static_cast<std::wint_t>(c)) != 0 && std::none_of(kDeceptive.begin(), kDeceptive.end(), holds);
}

/// The bytes at the head of `text` that make one printable character, 0 when there is none.
std::size_t PrintableHead(std::string_view text) {
  wchar_t c = 0;
  std::mbstate_t state{};
  const std::size_t size = std::mbrtowc(&c, text.data(), text.size(), &state);
  return size <= text.size() && IsPrintable(c) ? size : 0;
}

constexpr std::string_view kEllipsis = "...";

struct CharacterSize {
  std::size_t bytes;
  std::size_t columns;
};

/// Of the character that a text, which is printable and not empty, begins with.
CharacterSize SizeOf(const char* text) {
  wchar_t c = 0;
  std::mbstate_t state{};
  const std::size_t bytes = std::mbrtowc(&c, text, MB_CUR_MAX, &state);
  if (bytes > MB_CUR_MAX) return {1, 1};
  return {bytes, static_cast<std::size_t>(std::max(::wcwidth(c), 0))};
}

}  // namespace

std::string Escaped(char byte) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  return {'\\', 'x', kDigits[value >> 4U], kDigits[value & 0xFU]};
}

std::string Printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const std::size_t head = PrintableHead(text);
    if (text.front() == '\\') {
      result += "\\\\";
    } else if (head == 0) {
      result += Escaped(text.front());
    } else {
      result += text.substr(0, head);
    }
    text.remove_prefix(std::max<std::size_t>(head, 1));
  }
  return result;
}

std::string Valid(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    wchar_t c = 0;
    std::mbstate_t state{};
    // A zero byte counts as no bytes.
    const std::size_t size = std::max<std::size_t>(std::mbrtowc(&c, text.data(), text.size(), &state), 1);
    const bool isValid = size <= text.size();
    result += isValid ? text.substr(0, size) : "\uFFFD";
    text.remove_prefix(isValid ? size : 1);
  }
  return result;
}

std::size_t Width(const std::string& text) {
  std::size_t width = 0;
  for (const char* next = text.c_str(); *next != '\0';) {
    const CharacterSize size = SizeOf(next);
    width += size.columns;
    next += size.bytes;
  }
  return width;
}

std::string Padded(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, Width(text)), ' ');
}

std::string Shortened(const std::string& text, std::size_t width) {
  if (Width(text) <= width) return text;
  std::string head;
  std::size_t columns = kEllipsis.size();
  for (const char* next = text.c_str(); *next != '\0';) {
    const CharacterSize size = SizeOf(next);
    if (columns + size.columns > width) break;
    columns += size.columns;
    head.append(next, size.bytes);
    next += size.bytes;
  }
  return head + std::string(kEllipsis.substr(0, width));
}

}  // namespace zav::pyxctl
