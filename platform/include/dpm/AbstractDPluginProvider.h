#pragma once

#include <string>

/// The base of a plug-in's provider: the object that the daemon gets from the plug-in's factory and drives it through.
///
/// A plug-in exports `extern "C" AbstractDPluginProvider* DPluginFactory()`; the daemon owns what it returns and
/// deletes it through this class. The order of the virtual functions is part of the binary interface.
class __attribute__((visibility("default"))) AbstractDPluginProvider {
 public:
  AbstractDPluginProvider() = default;
  virtual ~AbstractDPluginProvider();

  AbstractDPluginProvider(const AbstractDPluginProvider&) = delete;
  AbstractDPluginProvider& operator=(const AbstractDPluginProvider&) = delete;

  /// Applies a status and records it in the policy storage.
  /// @return 0, or -1 when it was not applied or not recorded.
  virtual int setStatus(int status) = 0;
  /// @return the recorded status.
  virtual int getStatus() = 0;
  /// Applies a status without recording it.
  virtual void applyStatus(int status) = 0;
  /// Runs a text command of the plug-in.
  /// @param command  its name.
  /// @param data     its payload, JSON text; may be empty.
  /// @return the command's reply.
  virtual std::string executeCommand(const std::string& command, const std::string& data) = 0;
};
