#pragma once

#include <cstdint>
#include <string>

#include "Connection.h"
#include "Error.h"
#include "ipc/service/Package.h"

namespace zav::client {

/// Reads the service's answer piece by piece, trusting none of it. Every reader throws `kMalformed` when the answer
/// ends early, and the `late` kind when the deadline passes.
class Answer {
 public:
  Answer(Connection connection, const Deadline& deadline, ErrorKind late);

  std::int32_t Integer();

  /// Whether the service has sent all that it sends; waits until that is known.
  bool HasEnded();

  /// `kMalformed` also when the length is over the protocol's limit.
  std::string Text();

  template <class P>
  P Package() {
    ipc::PackageBytes<P> bytes;
    Receive(bytes.data(), bytes.size());
    return ipc::Decode<P>(bytes);
  }

 private:
  void Receive(void* target, std::size_t size);

  Connection connection_;
  Deadline deadline_;
  ErrorKind late_;
};

}  // namespace zav::client
