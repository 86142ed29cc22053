#include "MemoryDatabase.h"

#include "common/DBStorage.h"

namespace zav {
namespace fuzz {

MemoryDatabase& MemoryDatabase::Instance() {
  static MemoryDatabase instance;
  return instance;
}

}  // namespace fuzz

namespace common {

using fuzz::MemoryDatabase;

DBStorage::~DBStorage() = default;

void DBStorage::InitHandler() {}

void DBStorage::Reset() {}

int DBStorage::RestoreBackup() {
  return kStorageFailure;
}

int DBStorage::CheckTables() {
  return kStorageOk;
}

int DBStorage::RestoreTable(const Component& /*component*/) {
  return kStorageOk;
}

int DBStorage::WritePolicy(const Component& /*component*/, const std::string& name, const std::string& value) {
  if (MemoryDatabase::Instance().refuses) return kStorageFailure;
  MemoryDatabase::Instance().rows[name] = value;
  return kStorageOk;
}

int DBStorage::ReadPolicy(const Component& /*component*/, const std::string& name, std::string& value) {
  value.clear();
  const auto& rows = MemoryDatabase::Instance().rows;
  const auto row = rows.find(name);
  if (row == rows.end()) return kStorageNoRow;
  value = row->second;
  return kStorageOk;
}

}  // namespace common
}  // namespace zav
