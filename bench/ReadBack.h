#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Records.h"

namespace bench {

/// How many records the plug-in says were ever added. @throws std::runtime_error when it does not.
std::int64_t RecordsEverAdded(const std::string& socket);

/// Reads the log of the plug-in back and compares it with what was reported and answered with 0, by clients that each
/// reported 0, 1, 2...: the newest records have to be theirs, whole, each client's in its order and with no gap.
///
/// @param before    `RecordsEverAdded` before the first report.
/// @param answered  how many reports of each client were answered.
/// @throws std::runtime_error for a record that is lost, that nobody reported, or that is not as it was reported.
void ReadBack(const std::string& socket, const Records& records, std::int64_t before,
              const std::vector<unsigned>& answered);

}  // namespace bench
