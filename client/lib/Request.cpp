#include "Request.h"

#include "Error.h"

namespace zav::client {

Request::Request(ipc::Method method) {
  ipc::Header header;
  header.method = static_cast<std::int32_t>(method);
  Add(header);
}

Request& Request::AddText(std::string_view text, const char* name) {
  if (text.size() > ipc::kMaxStringSize) {
    throw Error(ErrorKind::kOutOfRange, std::string("the ") + name + " has " + std::to_string(text.size()) +
                                            " bytes, the service takes " + std::to_string(ipc::kMaxStringSize));
  }
  const auto size = static_cast<std::uint32_t>(text.size());
  AddBytes(&size, sizeof(size));
  return AddBytes(text.data(), text.size());
}

Request& Request::AddBytes(const void* data, std::size_t size) {
  bytes_.append(static_cast<const char*>(data), size);
  return *this;
}

}  // namespace zav::client
