#pragma once

#include <json/value.h>

#include <string>

#include "policy/Policy.h"
#include "pyx/State.h"
#include "support/StoredState.h"

/// The storage policy that the state holds, of which it shows only parts. For programs that hold the plug-in's own
/// code.
namespace zav::test {

pyx::ThreatLog pyx::State::*StorageMember();

/// An explicit instantiation may name what is private.
template <pyx::ThreatLog pyx::State::*Member>
struct StorageAccess {
  friend pyx::ThreatLog pyx::State::*StorageMember() { return Member; }
};
template struct StorageAccess<&pyx::State::storage>;

inline Json::Value InMemory(pyx::State& state) {
  const std::string& text = (state.*StorageMember()).Text();
  return text.empty() ? Json::Value() : Parsed(text);
}

/// Replaces it, or a member of it, behind the state's back: for what no stored policy leads to.
inline void SetInMemory(pyx::State& state, const Json::Value& storage) {
  state.*StorageMember() = pyx::ThreatLog(policy::Policy(storage));
}

inline void SetInMemory(pyx::State& state, const std::string& key, const Json::Value& member) {
  Json::Value storage = InMemory(state);
  storage[key] = member;
  SetInMemory(state, storage);
}

}  // namespace zav::test
