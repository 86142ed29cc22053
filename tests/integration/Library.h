#pragma once

#include <dlfcn.h>
#include <dpm/AbstractDPluginProvider.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "support/ThisProcess.h"

namespace zav::test {

/// The plug-in's library as the daemon has it: loaded by its path, known by its one symbol.
class Library {
 public:
  Library() : handle(dlopen(ZAV_PLUGIN_FILE, RTLD_NOW | RTLD_LOCAL)) {
    if (handle == nullptr) throw std::runtime_error(dlerror());
  }
  ~Library() { Unload(); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  void* Symbol(const char* name) const { return dlsym(handle, name); }
  /// @return a new provider, or null.
  std::unique_ptr<AbstractDPluginProvider> Make() const {
    const auto factory = reinterpret_cast<AbstractDPluginProvider* (*)()>(Symbol("DPluginFactory"));
    if (factory == nullptr) throw std::runtime_error("no factory");
    return std::unique_ptr<AbstractDPluginProvider>(factory());
  }
  void Unload() {
    if (handle != nullptr) dlclose(handle);
    handle = nullptr;
  }

  static bool IsMapped() {
    const std::string file = ZAV_PLUGIN_FILE;
    return test::IsMapped(file.substr(file.rfind('/') + 1));
  }

 private:
  void* handle;
};

/// The loaded plug-in and its provider, which is ended before the library.
struct LoadedPlugin {
  void Unload() {
    provider.reset();
    library.Unload();
  }

  Library library;
  std::unique_ptr<AbstractDPluginProvider> provider = library.Make();
};

}  // namespace zav::test
