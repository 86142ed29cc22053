#include "Plugin.h"

#include <dlfcn.h>

#include <stdexcept>

namespace host {
namespace {

using Factory = AbstractDPluginProvider* (*)();

constexpr const char* kFactory = "DPluginFactory";

/// `dlerror` names the library.
[[noreturn]] void FailAtLoading() {
  const char* error = dlerror();
  throw std::runtime_error(std::string("can't load the plug-in: ") + (error != nullptr ? error : "unknown reason"));
}

}  // namespace

Plugin::Plugin(const std::string& file) : path(file) {
  Load();
}

Plugin::~Plugin() = default;

AbstractDPluginProvider& Plugin::Provider() {
  if (!provider) throw std::runtime_error("no plug-in is loaded; \"reload\" tries again");
  return *provider;
}

void Plugin::Reload() {
  provider.reset();
  library.reset();
  Load();
}

void Plugin::Load() {
  std::unique_ptr<void, Unload> loaded(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!loaded) FailAtLoading();
  const auto factory = reinterpret_cast<Factory>(dlsym(loaded.get(), kFactory));
  if (factory == nullptr) FailAtLoading();

  std::unique_ptr<AbstractDPluginProvider> made(factory());
  if (!made) throw std::runtime_error("the plug-in " + path + " did not start; the log says why");
  library = std::move(loaded);
  provider = std::move(made);
}

void Plugin::Unload::operator()(void* handle) const {
  dlclose(handle);
}

}  // namespace host
