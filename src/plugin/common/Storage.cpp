#include "common/Storage.h"

#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "common/FileHelper.h"
#include "common/Log.h"

namespace zav::common {
namespace {

// No objects that need memory: where there is none, the load of the library would end the process.
constexpr std::string_view storagePath = "/opt/data/dpm/dplugins/zav-pyx-plugin";
constexpr std::string_view POLICY_ALIAS = "policy.json";

}  // namespace

std::string ReadFromStorage() {
  try {
    const std::string path = std::string(storagePath).append("/").append(POLICY_ALIAS);
    if (FileHelper().isPipeOrDevice(path)) throw std::runtime_error(path);
    std::ifstream file(path, std::ios::in | std::ios::binary);
    // The buffer is read without the stream around it: a stream would keep a read error to itself.
    if (!file.is_open()) return {};
    return {std::istreambuf_iterator<char>(file.rdbuf()), std::istreambuf_iterator<char>()};
  } catch (const std::exception&) {
    LOG_ERROR("Failed to read ", POLICY_ALIAS, " from storage.");
    return {};
  }
}

}  // namespace zav::common
