#pragma once

#include <map>
#include <ostream>
#include <random>
#include <string>

#include "Requests.h"

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

/// The log as its users understand it, one question after the other. No record grows old.
class LogModel {
 public:
  /// @return the answer, readable.
  std::string Answer(const Question& question);
  /// All of it.
  std::string Text() const;

 private:
  struct Record {
    std::string url;
    std::string threat;
  };

  std::string Command(const Question& question);
  void Report(const Question& question);
  void Renumber();
  std::string Range(const Question& question) const;
  std::string Status() const;

  std::map<int, Record> records;
  int count = 0;
  int lastIndex = -1;
  std::map<std::string, int> seen;
  int maxFileSize = 10;
  int maxIndex = 2000;
};

}  // namespace zav::test
