#include "policy/Manager.h"

#include <stdexcept>

#include "common/Log.h"
#include "common/Storage.h"

namespace zav::policy {
namespace {

using common::Component;
using common::ComponentName;

const char* const kEmptyDefault = "Default policy is empty";

// Not a local of the function that fills it: that would be made by whichever thread came first, and so might end
// before the service thread does.
Policy defaultPolicy;

}  // namespace

Manager& Manager::Instance() {
  static Manager instance;
  return instance;
}

Manager::Manager() {
  storage.InitHandler();
  const int tables = storage.CheckTables();
  if (tables == common::kStorageOk) return;
  if (tables == common::kStorageNoTable) {
    SeedTables();
  } else {
    storage.Reset();
  }
}

void Manager::SeedTables() {
  const Policy& defaults = DefaultPolicy();
  if (defaults.isNull()) throw std::runtime_error(kEmptyDefault);

  const Component component = common::PYXPlugin;
  const Policy policies = defaults.GetSubPolicy(ComponentName(component));
  for (const std::string& name : policies.MemberNames()) {
    const Policy policy = policies.GetSubPolicy(name);
    if (policy.isNull()) continue;
    const int result = storage.WritePolicy(component, name, policy.AsString());
    if (result == common::kStorageEmptyDefault) throw std::runtime_error(kEmptyDefault);
    if (result != common::kStorageOk) return;
  }
}

const Policy& Manager::DefaultPolicy() {
  if (!defaultPolicy.isNull()) return defaultPolicy;
  const std::string content = common::ReadFromStorage();
  if (content.empty()) {
    LOG_ERROR("Failed to read default policy");
  } else {
    LOG_INFO("Default policy successfully read");
    defaultPolicy = ParseJsonString(content);
  }
  return defaultPolicy;
}

int Manager::UpdatePolicy(const Component& component, const std::string& name, const Policy& policy) {
  return UpdatePolicy(component, name, policy.AsString());
}

int Manager::UpdatePolicy(const Component& component, const std::string& name, const std::string& text) {
  if (storage.WritePolicy(component, name, text) == common::kStorageOk) return common::kStorageOk;

  if (storage.RestoreBackup() == common::kStorageOk &&
      storage.WritePolicy(component, name, text) == common::kStorageOk) {
    return common::kStorageOk;
  }

  storage.Reset();
  int result = storage.RestoreTable(component);
  if (result == common::kStorageOk) result = storage.WritePolicy(component, name, text);
  if (result != common::kStorageOk) LOG_ERROR("Failed to update [", name, "] policy");
  return result;
}

Policy Manager::GetPolicy(const Component& component, const std::string& name) {
  std::string text;
  if (storage.ReadPolicy(component, name, text) == common::kStorageOk) return ParseJsonString(text);

  if (storage.RestoreBackup() == common::kStorageOk &&
      storage.ReadPolicy(component, name, text) == common::kStorageOk) {
    return ParseJsonString(text);
  }

  LOG_INFO("Trying to restore default [", name, "] policy");
  return RestoreDefaultPolicy(component, name);
}

Policy Manager::RestoreDefaultPolicy(const Component& component, const std::string& name) {
  Policy policy = DefaultPolicy().Member(ComponentName(component)).Member(name).Copy();
  if (policy.isNull()) {
    LOG_INFO("Default [", name, "] policy is empty");
    return policy;
  }
  if (storage.RestoreTable(component) == common::kStorageOk) {
    storage.WritePolicy(component, name, policy.AsString());
  } else {
    storage.Reset();
  }
  return policy;
}

}  // namespace zav::policy
