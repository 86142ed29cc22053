#include "common/Storage.h"

#include <exception>
#include <fstream>
#include <iterator>

#include "common/Log.h"

namespace zav::common {
namespace {

const std::string storagePath = std::string("/opt/data/dpm/dplugins") + "/zav-pyx-plugin";
const std::string POLICY_ALIAS = "policy.json";

}  // namespace

std::string ReadFromStorage() {
  try {
    std::ifstream file(storagePath + "/" + POLICY_ALIAS, std::ios::in | std::ios::binary);
    // The buffer is read without the stream around it: a stream would keep a read error to itself.
    if (!file.is_open()) return {};
    return {std::istreambuf_iterator<char>(file.rdbuf()), std::istreambuf_iterator<char>()};
  } catch (const std::exception&) {
    LOG_ERROR("Failed to read ", POLICY_ALIAS, " from storage.");
    return {};
  }
}

}  // namespace zav::common
