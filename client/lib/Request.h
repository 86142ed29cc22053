#pragma once

#include <string>
#include <string_view>

#include "ipc/service/Package.h"

namespace zav::client {

/// The bytes of one request.
class Request {
 public:
  explicit Request(ipc::Method method);

  template <class P>
  Request& Add(const P& package) {
    const auto bytes = ipc::Encode(package);
    return AddBytes(bytes.data(), bytes.size());
  }

  /// `name` says what the text is; `kOutOfRange` when it is longer than the protocol allows.
  Request& AddText(std::string_view text, const char* name);

  const std::string& bytes() const { return bytes_; }

 private:
  Request& AddBytes(const void* data, std::size_t size);

  std::string bytes_;
};

}  // namespace zav::client
