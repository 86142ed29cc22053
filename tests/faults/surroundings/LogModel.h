#pragma once

#include <json/value.h>

#include <string>

namespace zav::test {

/// What the rules of the log make of a stored text, of reports and of time: as simple as it can be said, and in no way
/// as the plug-in does it.
class LogModel {
 public:
  /// A start.
  /// @param storage  the text of the "Storage" row.
  /// @param state    that of the "State" row.
  LogModel(const std::string& storage, const std::string& state, int now);

  void Add(const std::string& url, const std::string& threat, int now);
  /// Drops what is too old. @return the answer to a request for the status.
  Json::Value Status(int now);
  /// The records of a time frame from the lowest index on; null where there is none.
  Json::Value Records(int from, int to) const;
  int Count(int from, int to) const { return static_cast<int>(Records(from, to).size()); }
  /// What the next save writes.
  const Json::Value& Storage() const { return storage; }

 private:
  void Validate(bool logging);
  void DropOutdated(int now);
  void Renumber();
  void DropLowest();
  int FirstIndex() const;

  Json::Value storage;
};

/// A value as it comes back from its text.
Json::Value Rewritten(const Json::Value& value);

}  // namespace zav::test
