#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <tuple>

/// The wire format of the local socket: the one header that the service and its clients share.
///
/// A client sends one request a connection: a `Header`, then what its method asks for. The service answers with
/// packages, integers (4 bytes, signed) or strings (a 4-byte unsigned length, then the bytes) and closes the
/// connection. All numbers are 32 bits wide and in host byte order: both ends run on one device.
namespace zav::ipc {

/// What a header asks for.
enum class Method : std::int32_t {
  /// Answer: `StatePackage` {`kPyxStateCode`, state}.
  kGetPyxState = 4,
  /// Answer: `StatePackage` {`kLoggingStateCode`, state}.
  kGetLoggingState = 5,
  /// After the header: string url, string threat. Answer: int 0 logged, -1 not logged, -2 not received.
  kLogThreatUrl = 6,
  /// Answer: string, the log's status as JSON text.
  kGetLogStatus = 16,
  /// After the header: `LogPackage`. Answer: int 0, int last index, string (the records, JSON text); or int -1 alone.
  kGetLog = 17,
  /// As `kGetLog`, from the newest record to the oldest.
  kGetLogReverse = 18,
  /// Answer: int 0 done, -1 not.
  kResetLog = 19,
  /// After the header: `FramePackage`. Answer: int, the number of records; -1 when the package was not received.
  kCountRecords = 20,
};

/// The tag of every header; the service refuses another one.
inline constexpr std::int32_t kHeaderTag = 8;
/// The codes of a `StatePackage`.
inline constexpr std::int32_t kPyxStateCode = 301;
inline constexpr std::int32_t kLoggingStateCode = 1301;
/// The longest string in bytes, either way.
inline constexpr std::uint32_t kMaxStringSize = 16'777'216;

/// The base of what travels in one piece. Its first four bytes on the wire carry no meaning: zero when sent, ignored
/// when received.
class Package {
 public:
  virtual ~Package() = default;

 protected:
  Package() = default;
  Package(const Package&) = default;
  Package& operator=(const Package&) = default;
};

class Header : public Package {
 public:
  /// Only logged.
  std::int32_t module = 0;
  std::int32_t tag = kHeaderTag;
  /// A `Method`.
  std::int32_t method = 0;

  static constexpr std::size_t kSize = 16;
  auto fields() { return std::tie(module, tag, method); }
  auto fields() const { return std::tie(module, tag, method); }
};

class StatePackage : public Package {
 public:
  std::int32_t code = 0;
  /// 0 disabled, 1 enabled.
  std::int32_t state = 0;

  static constexpr std::size_t kSize = 12;
  auto fields() { return std::tie(code, state); }
  auto fields() const { return std::tie(code, state); }
};

class FramePackage : public Package {
 public:
  /// Not read.
  std::int32_t word = 0;
  /// Seconds since the epoch, both included.
  std::int32_t from = 0;
  std::int32_t to = 0;

  static constexpr std::size_t kSize = 16;
  auto fields() { return std::tie(word, from, to); }
  auto fields() const { return std::tie(word, from, to); }
};

class LogPackage : public Package {
 public:
  /// Not read.
  std::int32_t word = 0;
  /// Seconds since the epoch, both included; a `to` of 0 is now.
  std::int32_t from = 0;
  std::int32_t to = 0;
  /// The most records to answer with; 0 is no limit.
  std::int32_t maxCount = 0;
  /// The index to start at; -1 starts at the first record, or at the newest one when going back.
  std::int32_t startIndex = -1;

  static constexpr std::size_t kSize = 24;
  auto fields() { return std::tie(word, from, to, maxCount, startIndex); }
  auto fields() const { return std::tie(word, from, to, maxCount, startIndex); }
};

/// The bytes of a package as they stand on the wire of type `P`.
template <class P>
using PackageBytes = std::array<std::byte, P::kSize>;

/// The offset of a package's first field.
inline constexpr std::size_t kFirstField = 4;

/// Puts a package's fields into its bytes, one by one: an object's own memory has another size and order on another
/// architecture, and would show a client the service's addresses.
template <class P>
PackageBytes<P> Encode(const P& package) {
  PackageBytes<P> bytes{};
  std::apply(
      [&bytes](const auto&... field) {
        static_assert(kFirstField + (sizeof(field) + ...) == P::kSize);
        std::size_t offset = kFirstField;
        ((std::memcpy(bytes.data() + offset, &field, sizeof(field)), offset += sizeof(field)), ...);
      },
      package.fields());
  return bytes;
}

/// The reverse of `Encode`.
template <class P>
P Decode(const PackageBytes<P>& bytes) {
  P package;
  std::apply(
      [&bytes](auto&... field) {
        std::size_t offset = kFirstField;
        ((std::memcpy(&field, bytes.data() + offset, sizeof(field)), offset += sizeof(field)), ...);
      },
      package.fields());
  return package;
}

}  // namespace zav::ipc
