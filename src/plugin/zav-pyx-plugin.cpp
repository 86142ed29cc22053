#include "zav-pyx-plugin.h"

#include <dpm/PolicyStorage.h>
#include <klay/Exception.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string_view>

#include "DpmLog.h"
#include "PYXManager.h"
#include "pyx/PolicyHandler.h"
#include "pyx/State.h"

using zav::plugin::PYXManager;
using zav::policy::ParseJsonString;
using zav::policy::Policy;
using zav::policy::PolicyView;
using zav::pyx::State;

namespace {

// The daemon files the policy's status under this name.
const char* const kPolicyName = "zav-pyx-plugin";

constexpr int kFailure = -1;

// Statuses of the policy.
constexpr int kStop = 0;
constexpr int kStart = 1;

void AddOperationStatus(Policy& policy, bool ok) {
  policy.SetStringValue("operationStatus", ok ? "success" : "failed");
}

std::string ResultString(int code) {
  Policy policy;
  AddOperationStatus(policy, code == 0);
  return policy.AsString();
}

std::string Enable(const std::string&) {
  return ResultString(State::Instance().ApplyPyxState(State::Enabled));
}

std::string Disable(const std::string&) {
  return ResultString(State::Instance().ApplyPyxState(State::Disabled));
}

std::string EnableLogging(const std::string&) {
  return ResultString(State::Instance().ApplyLoggingState(State::Enabled));
}

std::string DisableLogging(const std::string&) {
  return ResultString(State::Instance().ApplyLoggingState(State::Disabled));
}

std::string GetStatus(const std::string&) {
  Policy status = State::Instance().GetLogStatus();
  AddOperationStatus(status, !status.isNull());
  return status.AsString();
}

std::string ResetLog(const std::string&) {
  return ResultString(State::Instance().ResetLog());
}

std::string ResetLogStat(const std::string&) {
  State& state = State::Instance();
  const std::lock_guard guard(state.Mutex());
  state.ResetState();
  return ResultString(state.SaveStorage());
}

// Tells that a payload held no service settings.
constexpr int kNoServiceSettings = -41;
constexpr int kMinLoggingPeriod = 3600;
constexpr int kMaxLoggingPeriod = 31622400;
constexpr int kMinFileSize = 10;
constexpr int kMaxFileSize = 1000;
constexpr int kMaxIndex = 2000;

int UpdateServiceSettings(int delay) {
  if (delay == 0) return kNoServiceSettings;
  Policy service;
  service.SetIntValue("restart_delay", std::clamp(delay, PYXManager::kMinRestartDelay, PYXManager::kMaxRestartDelay));
  return zav::pyx::PolicyHandler.UpdatePolicy("Service", service);
}

/// The log settings of a payload, completed from the current ones and brought into their limits.
Policy MakeLogConfig(const PolicyView& payload, const PolicyView& current) {
  const auto given = [&](const char* key) {
    const int value = payload.GetIntValue(key);
    return value != 0 ? value : current.GetIntValue(key);
  };
  const int period = std::clamp(given("max_logging_period"), kMinLoggingPeriod, kMaxLoggingPeriod);
  const int fileSize = std::clamp(given("max_file_size"), kMinFileSize, kMaxFileSize);
  // No index may be smaller than the number of records; one that is, is set to the highest instead of to that number.
  const int index = given("max_index");
  Policy config;
  config.SetIntValue("max_logging_period", period);
  config.SetIntValue("max_file_size", fileSize);
  config.SetIntValue("max_index", fileSize > index || index > kMaxIndex ? kMaxIndex : index);
  return config;
}

int UpdateStoredSettings(const Policy& root) {
  State& state = State::Instance();
  const std::lock_guard guard(state.Mutex());
  int code = UpdateServiceSettings(root.Member("Service").GetIntValue("restart_delay"));
  const PolicyView config = root.Member("Storage").Member("config");
  if (config.isNull()) return code;

  if (code == kNoServiceSettings) code = 0;
  state.SetConfig(MakeLogConfig(config, state.Config()));
  const int saved = state.SaveStorage();
  return code == 0 ? saved : code;
}

std::string UpdateConfig(const std::string& data) {
  const Policy root = ParseJsonString(data);
  const Policy service = root.GetSubPolicy("Service");
  const int code = UpdateStoredSettings(root);
  if (code == 0 && !service.isNull()) PYXManager::Instance().ApplyPolicy(service);
  return ResultString(code);
}

struct Command {
  std::string_view name;
  std::string (*run)(const std::string& data);
};

constexpr std::array kCommands{
    Command{"Enable", Enable},
    Command{"Disable", Disable},
    Command{"EnableLogging", EnableLogging},
    Command{"DisableLogging", DisableLogging},
    Command{"GetStatus", GetStatus},
    Command{"UpdateConfig", UpdateConfig},
    Command{"ResetLog", ResetLog},
    Command{"ResetLogStat", ResetLogStat},
};

std::string MakeString(const unsigned char* bytes, int length) {
  if (bytes == nullptr || length <= 0) return {};
  return {reinterpret_cast<const char*>(bytes), static_cast<size_t>(length)};
}

}  // namespace

ZavPYXPluginEnable::ZavPYXPluginEnable() : DPluginPolicy(kPolicyName) {
  DPM_INFO("### zav-pyx-plugin Constructor() ###");
}

bool ZavPYXPluginEnable::apply(const int& status) {
  DPM_INFO("### zav-pyx-plugin apply(%d) ###", status);
  if (status == kStart) {
    try {
      if (PYXManager::Instance().IsRunning()) {
        DPM_INFO("### zav-pyx-plugin already started ###");
        return true;
      }
      DPM_INFO("### starting zav-pyx-plugin ###");
      PYXManager::Instance().Start();
      return true;
    } catch (const std::exception& exception) {
      DPM_ERROR("can't start pyx plugin: %s", exception.what());
      return false;
    }
  }
  if (status == kStop) {
    try {
      if (!PYXManager::Instance().IsRunning()) {
        DPM_INFO("### zav-pyx-plugin already stopped ###");
        return true;
      }
      DPM_INFO("### stopping zav-pyx-plugin ###");
      if (PYXManager::Instance().IsRunning()) PYXManager::Instance().Stop();
      return true;
    } catch (const std::exception& exception) {
      DPM_ERROR("can't stop pyx plugin: %s", exception.what());
      return false;
    }
  }
  DPM_INFO("### another status ###");
  return false;
}

dpm_zav_pyx_plugin::dpm_zav_pyx_plugin() {
  DPM_INFO("### dpm_zav_pyx_plugin initiailize ###");
  DPM_INFO("### set dpm_zav_pyx_plugin callback ###");
}

dpm_zav_pyx_plugin::~dpm_zav_pyx_plugin() {
  DPM_INFO("### dpm_zav_pyx_plugin deinitialize ###");
}

int dpm_zav_pyx_plugin::setStatus(int status) {
  DPM_INFO("called : %d;", status);
  try {
    if (!policy.apply(status)) return kFailure;
    const std::lock_guard guard(PolicyStorage::dbLock);
    return PolicyStorage::backend->store(kPolicyName, status) == 0 ? 0 : kFailure;
  } catch (const klay::Exception& exception) {
    DPM_ERROR("%s", exception.what());
    return kFailure;
  }
}

int dpm_zav_pyx_plugin::getStatus() {
  DPM_INFO("called;");
  const std::lock_guard guard(PolicyStorage::dbLock);
  return PolicyStorage::backend->read(kPolicyName);
}

void dpm_zav_pyx_plugin::applyStatus(int status) {
  DPM_INFO("called;");
  policy.apply(status);
}

std::string dpm_zav_pyx_plugin::executeCommand(const std::string& command, const std::string& data) {
  const auto bytes = [](const std::string& text) { return reinterpret_cast<const unsigned char*>(text.data()); };
  unsigned char* reply = nullptr;
  int replyLength = 0;
  const int result = executeCommandInternal(bytes(command), static_cast<int>(command.size()), bytes(data),
                                            static_cast<int>(data.size()), &reply, &replyLength);
  const std::unique_ptr<unsigned char, decltype(&std::free)> owner(reply, std::free);
  return result != 0 ? "fail" : MakeString(reply, replyLength);
}

int dpm_zav_pyx_plugin::executeCommandInternal(const unsigned char* command, int commandLength,
                                               const unsigned char* data, int dataLength, unsigned char** reply,
                                               int* replyLength) {
  const std::string name = MakeString(command, commandLength);
  const std::string payload = MakeString(data, dataLength);
  const auto known =
      std::find_if(kCommands.begin(), kCommands.end(), [&](const Command& each) { return each.name == name; });
  if (known == kCommands.end()) {
    DPM_WARNING("Unknown Plugin command");
    *reply = nullptr;
    return kFailure;
  }
  // Both are there before a command runs, the manager first.
  PYXManager::Instance();
  State::Instance();
  const std::string text = known->run(payload);
  *reply = static_cast<unsigned char*>(std::malloc(text.size()));
  if (*reply == nullptr) return 0;
  std::memcpy(*reply, text.data(), text.size());
  *replyLength = static_cast<int>(text.size());
  return 0;
}

AbstractDPluginProvider* DPluginFactory() {
  DPM_INFO("called");
  try {
    auto provider = std::make_unique<dpm_zav_pyx_plugin>();
    if (provider->setStatus(kStart) != 0) return nullptr;
    return provider.release();
  } catch (...) {
    // The caller is the daemon's C interface: no exception may cross it.
    return nullptr;
  }
}
