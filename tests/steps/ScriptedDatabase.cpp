#include "steps/ScriptedDatabase.h"

#include <dlog/dlog.h>
#include <klay/Exception.h>
#include <klay/database/Statement.h>

#include <cstdlib>
#include <new>
#include <stdexcept>

namespace zav::test {
namespace {

constexpr const char* kTag = "database";

void Record(const std::string& call) {
  __dlog_print(DLOG_BUFFER_MAIN, DLOG_DEBUG, kTag, "%s", call.c_str());
}

void Call(const std::string& name, const std::string& arguments = "") {
  Record(arguments.empty() ? name : name + " " + arguments);
  const ScriptedDatabase& script = ScriptedDatabase::Instance();
  if (script.failingCall != name) return;
  switch (script.failure) {
    case ScriptedDatabase::Failure::kNone:
      return;
    case ScriptedDatabase::Failure::kKlayException:
      throw klay::Exception(script.reason);
    case ScriptedDatabase::Failure::kStandardException:
      throw std::runtime_error(script.reason);
    case ScriptedDatabase::Failure::kOther:
      throw 5;
  }
}

/// The next row of the one statement that is alive.
size_t nextRow = 0;

}  // namespace

ScriptedDatabase& ScriptedDatabase::Instance() {
  static ScriptedDatabase instance;
  return instance;
}

testing::Matcher<LogEntry> DatabaseCall(const testing::Matcher<std::string>& call) {
  return testing::AllOf(testing::Field("tag", &LogEntry::tag, kTag), testing::Field("call", &LogEntry::message, call));
}

}  // namespace zav::test

namespace klay {

Exception::Exception(const std::string& text) : message(text) {}
Exception::~Exception() = default;

const char* Exception::what() const noexcept {
  return message.c_str();
}

namespace database {

using zav::test::Call;
using zav::test::nextRow;
using zav::test::ScriptedDatabase;

Connection::Connection(const std::string& path, int flags, bool check) {
  Call("open", path + " " + std::to_string(flags) + (check ? " true" : " false"));
}

Connection::~Connection() {
  zav::test::Record("close");
}

Statement::Statement(const Connection& connection, const std::string& sql) : database(connection.handle()) {
  const ScriptedDatabase& script = ScriptedDatabase::Instance();
  nextRow = sql.starts_with("SELECT 1 ") && script.tableIsEmpty ? script.rows.size() : 0;
  Call("prepare", sql);
}

Statement::~Statement() {
  zav::test::Record("end");
}

void Statement::bind(int index, const char* text) {
  Call("bind", std::to_string(index) + " " + text);
}

void Statement::bind(int index, const std::string& text) {
  Call("bind", std::to_string(index) + " " + text);
}

bool Statement::step() {
  Call("step");
  return nextRow++ < ScriptedDatabase::Instance().rows.size();
}

int Statement::exec() {
  Call("exec");
  return ScriptedDatabase::Instance().changed;
}

int Statement::getColumnCount() const {
  return ScriptedDatabase::Instance().columns;
}

Column Statement::getColumn(int position) const {
  return {statement, position};
}

std::string Statement::getErrorMessage() const {
  return ScriptedDatabase::Instance().errorMessage;
}

Column::Column(sqlite3_stmt* row, int position) : statement(row), index(position) {}

std::string Column::getText() const {
  static_cast<void>(statement);
  Call("column", std::to_string(index));
  return ScriptedDatabase::Instance().rows.at(nextRow - 1);
}

}  // namespace database
}  // namespace klay

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (zav::test::ScriptedDatabase::Instance().outOfMemory) return nullptr;
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
