#include "dpm/PolicyStorage.h"

PolicyStorageBackend::~PolicyStorageBackend() = default;

PolicyStorageBackend* PolicyStorage::backend = nullptr;
std::mutex PolicyStorage::dbLock;
