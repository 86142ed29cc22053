#include "klay/Exception.h"

namespace klay {

Exception::Exception(const std::string& text) : message(text) {}

// Out of line, so that the type's information stands in this library once and is the same for all who catch it.
Exception::~Exception() = default;

const char* Exception::what() const noexcept {
  return message.c_str();
}

}  // namespace klay
