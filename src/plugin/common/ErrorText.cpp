#include "common/ErrorText.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace zav::common {
namespace {

constexpr size_t kBufferSize = 255;
constexpr size_t kMaxTextSize = 4096;

}  // namespace

std::string errorToString(int errnum) {
  const int error = errno;
  std::array<char, kBufferSize> buffer{};
  const char* text = strerror_r(errnum, buffer.data(), buffer.size());
  std::string result = text != nullptr ? std::string(text, strnlen(text, kMaxTextSize)) : std::string();
  errno = error;
  return result;
}

}  // namespace zav::common
