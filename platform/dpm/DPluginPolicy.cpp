#include "dpm/DPluginPolicy.h"

DPluginPolicy::DPluginPolicy(const std::string& policyName) : name(policyName) {}

DPluginPolicy::~DPluginPolicy() = default;

bool DPluginPolicy::apply(const int& /*status*/) {
  return true;
}
