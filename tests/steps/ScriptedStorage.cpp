#include "steps/ScriptedStorage.h"

#include "common/DBStorage.h"

namespace zav {
namespace test {

ScriptedStorage& ScriptedStorage::Instance() {
  static ScriptedStorage instance;
  return instance;
}

namespace {

template <class... Arguments>
int Call(const std::string& operation, const Arguments&... arguments) {
  ScriptedStorage& script = ScriptedStorage::Instance();
  std::string& call = script.calls.emplace_back(operation);
  (call.append(" ").append(arguments), ...);
  auto& results = script.results[operation];
  if (results.empty()) return 0;
  const int result = results.front();
  results.pop_front();
  return result;
}

}  // namespace
}  // namespace test

namespace common {

DBStorage::~DBStorage() = default;

void DBStorage::InitHandler() {
  test::Call("InitHandler");
}

void DBStorage::Reset() {
  test::Call("Reset");
}

int DBStorage::RestoreBackup() {
  return test::Call("RestoreBackup");
}

int DBStorage::CheckTables() {
  return test::Call("CheckTables");
}

int DBStorage::RestoreTable(const Component& component) {
  return test::Call("RestoreTable", std::to_string(component));
}

int DBStorage::WritePolicy(const Component& component, const std::string& name, const std::string& value) {
  return test::Call("WritePolicy", std::to_string(component), name, value);
}

int DBStorage::ReadPolicy(const Component& component, const std::string& name, std::string& value) {
  value = test::ScriptedStorage::Instance().text;
  return test::Call("ReadPolicy", std::to_string(component), name);
}

}  // namespace common
}  // namespace zav
