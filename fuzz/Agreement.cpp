#include "Agreement.h"

#include "Check.h"
#include "Clock.h"
#include "MemoryDatabase.h"
#include "Restart.h"
#include "support/LogText.h"

namespace zav::fuzz {
namespace {

using test::ParseObject;
using test::ReadContent;
using test::ReadRecords;
using test::Written;

/// What a text holds, as it is after it was written.
Json::Value ParsedAsWritten(const std::string& text) {
  return ParseObject(Written(ParseObject(text)));
}

}  // namespace

pyx::State& Start(const std::string& storage, const std::string& logging) {
  Clock::Set(Clock::kStart);
  MemoryDatabase::Instance().refuses = false;
  MemoryDatabase::Instance().rows = {{"Service", "{\"restart_delay\":30}\n"},
                                     {"State", R"({"logging_state":")" + logging + "\",\"pyx_state\":\"enabled\"}\n"},
                                     {"Storage", storage}};
  return RestartState();
}

void CheckContent(const LogContent& content, const LogModel& model) {
  // Few logs hold what is changed by writing it.
  if (content == model.Content()) return;
  CheckEqual(content, Rewritten(model.Content()), "the log is what the model makes of it");
}

void CheckAgreement(pyx::State& state, const LogModel& model, bool wasSaved) {
  std::string& row = MemoryDatabase::Instance().rows["Storage"];
  const std::string before = row;
  Check(state.SaveStorage() == 0, "the storage can be saved");
  const Json::Value written = ParseObject(row);
  CheckContent(ReadContent(written), model);
  if (!wasSaved || before == row) return;
  Check(ParsedAsWritten(before) == written, "what was stored parses back to what is in memory");
}

void CheckFinding(const pyx::LogSlice& slice, const LogFinding& expected, const char* property) {
  const LogFinding found{slice.lastIndex, ReadRecords(ParseObject(slice.records))};
  CheckEqual(found, Rewritten(expected), property);
}

}  // namespace zav::fuzz
