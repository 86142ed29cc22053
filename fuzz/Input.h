#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zav::fuzz {

/// The bytes of one input, taken from the front. What is no longer there reads as zero, or as empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest(reinterpret_cast<const char*>(data), size) {}
  /// @param bytes  must outlive this.
  explicit Input(std::string_view bytes) : rest(bytes) {}

  bool IsAtEnd() const { return rest.empty(); }

  std::uint8_t Byte() {
    const std::string byte = Bytes(1);
    return byte.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(byte[0]);
  }

  /// A number of 16 bits, the low byte first.
  unsigned Size() {
    const unsigned low = Byte();
    return low + 256U * Byte();
  }

  /// An integer: mostly a small one, of a single byte; after 0xff one of any value, in four.
  int Integer() {
    const int byte = Byte();
    if (byte < 0xc0) return byte;
    if (byte < 0xff) return (byte - 0xe0) * 500;
    return static_cast<int>(Size() + (static_cast<std::uint32_t>(Size()) << 16));
  }

  /// As many bytes as there are, at most `size`.
  std::string Bytes(std::size_t size) {
    const std::string bytes(rest.substr(0, size));
    rest.remove_prefix(bytes.size());
    return bytes;
  }

  /// Text of up to 255 bytes, its size in front.
  std::string Text() { return Bytes(Byte()); }

  /// All up to a byte, which is taken along, or to the end.
  std::string UpTo(char end) {
    const auto found = rest.find(end);
    std::string bytes = Bytes(found);
    if (found != std::string_view::npos) rest.remove_prefix(1);
    return bytes;
  }

  std::string Rest() { return Bytes(rest.size()); }

 private:
  std::string_view rest;
};

}  // namespace zav::fuzz
