#include "policy/Handler.h"

#include "policy/Manager.h"

namespace zav::policy {

Policy Handler::GetPolicy(const std::string& name) const {
  return Manager::Instance().GetPolicy(component, name);
}

int Handler::UpdatePolicy(const std::string& name, const Policy& policy) const {
  return Manager::Instance().UpdatePolicy(component, name, policy);
}

int Handler::UpdatePolicy(const std::string& name, const std::string& text) const {
  return Manager::Instance().UpdatePolicy(component, name, text);
}

}  // namespace zav::policy
