#pragma once

#include <cstddef>
#include <cstring>

namespace zav::test {

/// The function in a slot of a polymorphic object's table, as a caller that knows nothing but the binary interface
/// finds it: `Slot<int (*)(Base*, int)>(base, 2)(base, 5)`.
template <class Function, class Object>
Function Slot(const Object* object, size_t index) {
  const void* const* table = nullptr;
  std::memcpy(&table, static_cast<const void*>(object), sizeof(table));
  Function function{};
  std::memcpy(&function, table + index, sizeof(function));
  return function;
}

}  // namespace zav::test
