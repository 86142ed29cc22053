#pragma once

#include <string>

/// The base of a policy that a plug-in applies. A policy is a member of its provider and never deleted through this
/// class, so there is no virtual destructor.
class __attribute__((visibility("default"))) DPluginPolicy {
 public:
  /// @param name  the name under which the policy storage files the policy's status.
  explicit DPluginPolicy(const std::string& name);

  DPluginPolicy(const DPluginPolicy&) = delete;
  DPluginPolicy& operator=(const DPluginPolicy&) = delete;

  /// Brings a status into force.
  /// @return whether it is in force; the base does nothing and returns true.
  virtual bool apply(const int& status);

 protected:
  ~DPluginPolicy();

  std::string name;
};
