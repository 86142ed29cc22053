#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zav::test {

/// A request to the service that takes whatever comes of it: no connection, an answer, a part of one, an end without.
class Request {
 public:
  /// Connects and sends; neither need succeed.
  explicit Request(const std::string& bytes);
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  /// Collects the answer until the service ends the connection. @return whether it did before the deadline.
  bool WaitForEnd(std::chrono::milliseconds deadline);
  /// What came by now.
  const std::string& Answer() const { return answer; }

 private:
  bool Receive(std::chrono::milliseconds deadline);

  int fd = -1;
  std::string answer;
};

// The bytes of the requests.
std::string ReportOf(const std::string& url);
std::string StateRequest();
std::string LogRequest();

/// The bytes of an answer before its text: a result, an index, and the text's length.
inline constexpr size_t kBeforeText = 3 * sizeof(std::int32_t);

/// What is wrong with an answer of which the end of the connection left the beginning alone.
inline const std::string kCutShort = "an answer was cut short";

// What is wrong with an answer; empty where it is well-formed, or where there is none.
std::string WrongInReport(const std::string& answer);
std::string WrongInState(const std::string& answer);
std::string WrongInLog(const std::string& answer);

/// The number that an answer is; nothing where it is no whole one.
std::optional<int> NumberOf(const std::string& answer);
/// The JSON text of a whole answer to `LogRequest`; empty where it is not whole, or holds no record.
std::string RecordsOf(const std::string& answer);

/// A report that is made again until it is answered. @return the first answer; nothing when none came in time.
std::optional<int> ReportUntilAnswered(const std::string& url, std::chrono::milliseconds deadline);
/// The records, asked for again until there is a whole answer; nothing when none came in time.
std::optional<std::string> AskUntilAnswered(std::chrono::milliseconds deadline);

}  // namespace zav::test
