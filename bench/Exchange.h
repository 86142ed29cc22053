#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Records.h"

namespace bench {

/// What is asked for, and of whom.
struct Question {
  /// One of `ExchangeKinds`.
  std::string kind;
  /// The service's socket.
  std::string socket;
  Records records;
  /// Of a range: the most records, 0 for all, and the index to begin at.
  int most = 0;
  int start = -1;
  /// What every answer has to be, byte by byte, where it is always the same.
  std::string expected;
  /// Where a log daemon that does not answer puts what it gets.
  std::string file;
  /// The socket on which such a one can be asked whether it is done.
  std::string control;
};

/// One request and its answer, over a connection of its own.
class Exchange {
 public:
  Exchange() = default;
  virtual ~Exchange() = default;
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  /// Prepares what the client of the next `Run` is to send, which is not measured.
  virtual void Prepare(unsigned /*client*/, unsigned /*sequence*/) {}

  /// @return false when the connection was shut without an answer: a refusal.
  /// @throws std::runtime_error for a wrong answer, and for none.
  virtual bool Run() = 0;
};

/// An exchange for each client. @throws std::runtime_error for an unknown kind.
std::unique_ptr<Exchange> MakeExchange(const Question& question);

std::vector<std::string> ExchangeKinds();

/// One request of the plug-in's with an answer that ends with the connection. @return the answer.
std::string Ask(const std::string& socket, const std::string& request);

/// The requests of the plug-in's that have no text.
std::string StateRequest();
std::string StatusRequest();
std::string LogRequest(bool newestFirst, int most, int start);
std::string CountRequest();

}  // namespace bench
