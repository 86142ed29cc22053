#pragma once

#include <stdexcept>
#include <string>

namespace zav::client {

/// Why a request came to nothing.
enum class ErrorKind {
  /// Nobody serves the socket: no such file, nobody behind it, or no right to connect.
  kNoService,
  /// The service was there but ended every connection without an answer, until the deadline: it serves one client at
  /// a time. The request was not carried out.
  kRefused,
  /// The deadline passed without a whole answer. A report or a reset that ends so was not taken by the service;
  /// another request may still be carried out.
  kTimedOut,
  /// Something answered that does not speak the protocol, or its answer was cut off. Of a report this says nothing
  /// about whether it was logged.
  kMalformed,
  /// The service answered that it did not do what was asked.
  kRejected,
  /// Of a report or a reset: the service may have taken it whole, and nothing tells whether it was carried out.
  kUnknownOutcome,
  /// An argument lies outside its limits; nothing was sent.
  kOutOfRange,
  /// A single record of the log is larger than an answer can be.
  kTooLarge,
  /// This machine could not do its part (no descriptors, no memory).
  kSystem,
};

/// What the calls of `Client` throw beside `std::bad_alloc`. `what()` is one line in words, without a final full stop
/// or line break, and holds nothing that the service sent.
class Error : public std::runtime_error {
 public:
  Error(ErrorKind kind, const std::string& what);
  ~Error() override;
  Error(const Error&) = default;
  Error& operator=(const Error&) = default;

  ErrorKind kind() const noexcept { return kind_; }

 private:
  ErrorKind kind_;
};

}  // namespace zav::client
