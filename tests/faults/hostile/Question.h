#pragma once

#include <ostream>
#include <random>
#include <string>

#include "Requests.h"
#include "support/LogModel.h"

namespace zav::test {

/// A request of a client, or a command of the host.
struct Question {
  ipc::Method method{};
  std::string url;
  std::string threat;
  ipc::LogPackage range = {};
  /// Not empty: a command, and its payload.
  std::string command;
  std::string data;
  int maxFileSize = 0;
  int maxIndex = 0;

  /// The request as it is sent.
  std::string Bytes() const;
  /// An answer without what no model can know: the times; and without what is nobody's: the order of members.
  std::string Readable(const std::string& answer) const;
};

std::ostream& operator<<(std::ostream& out, const Question& question);

/// @param name  a url that nobody else reports.
Question RandomRequest(std::mt19937& random, const std::string& name);
Question RandomCommand(std::mt19937& random);
/// The payload of "UpdateConfig".
std::string ConfigData(int maxFileSize, int maxIndex);

/// Asks the model of the log. No record grows old there.
/// @return the answer, readable.
std::string AskModel(LogModel& log, const Question& question);

}  // namespace zav::test
