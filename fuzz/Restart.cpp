#include "Restart.h"

#include <new>

#include "policy/Manager.h"

// The build switches access control off for this file: the constructors that it calls are private, since nothing else
// may call them but the functions that keep the singletons.
namespace zav::fuzz {

pyx::State& RestartState() noexcept {
  pyx::State& state = pyx::State::Instance();
  state.~State();
  return *::new (&state) pyx::State;
}

pyx::State& RestartAll(const std::function<void()>& between) noexcept {
  // In the order of a start: the state's first use makes the manager.
  pyx::State::Instance();
  policy::Manager& manager = policy::Manager::Instance();
  manager.~Manager();
  between();
  ::new (&manager) policy::Manager;
  return RestartState();
}

}  // namespace zav::fuzz
