#pragma once

#include <dpm/AbstractDPluginProvider.h>
#include <dpm/DPluginPolicy.h>

#include <string>

/// The policy that switches the feature: status 1 starts the service, 0 stops it.
class ZavPYXPluginEnable final : public DPluginPolicy {
 public:
  ZavPYXPluginEnable();

  /// @param status  1 or 0; for any other nothing changes.
  /// @return whether the service is in that state now. A failure is logged.
  bool apply(const int& status) override;
};

/// The plug-in as the daemon sees it. The daemon owns it and calls it on one thread at a time. Ending it leaves the
/// service as it is: that runs until it is stopped or the library is unloaded.
class dpm_zav_pyx_plugin : public AbstractDPluginProvider {
 public:
  dpm_zav_pyx_plugin();
  ~dpm_zav_pyx_plugin() override;

  /// Switches the service and records the status in the daemon's storage.
  /// @return 0; -1 when it could not be switched (nothing is recorded), or not be recorded (it stays switched).
  int setStatus(int status) override;
  /// @return what the daemon's storage holds for the policy.
  int getStatus() override;
  /// Switches the service without recording it.
  void applyStatus(int status) override;

  /// Runs a command: "Enable", "Disable", "EnableLogging", "DisableLogging", "GetStatus", "UpdateConfig", "ResetLog" or
  /// "ResetLogStat".
  ///
  /// @param data  the payload of "UpdateConfig", JSON text; not read by the others.
  /// @return JSON text with "operationStatus": "success" or "failed"; "fail" for an unknown command; empty when there
  ///         is no memory for the reply.
  /// @throws std::exception when the feature's state cannot be made.
  std::string executeCommand(const std::string& command, const std::string& data) override;

  /// The same over plain buffers.
  ///
  /// @param command, data  may be null.
  /// @param reply        out: the reply in memory of `malloc`, to be freed by the caller; without a closing zero. Null
  ///                     when there is none.
  /// @param replyLength  out: its length in bytes; left alone when there is none.
  /// @return 0, or -1 for an unknown command.
  static int executeCommandInternal(const unsigned char* command, int commandLength, const unsigned char* data,
                                    int dataLength, unsigned char** reply, int* replyLength);

 private:
  ZavPYXPluginEnable policy;
};

extern "C" {
/// Makes the plug-in's provider and switches the plug-in on.
/// @return the provider, the caller's to delete; null when it could not be made, started or recorded.
__attribute__((visibility("default"))) AbstractDPluginProvider* DPluginFactory();
}
