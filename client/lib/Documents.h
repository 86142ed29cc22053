#pragma once

#include <string>
#include <vector>

#include "Client.h"

/// The JSON texts that the service answers with, made into values. Whatever is not laid out as the service lays it out
/// throws `kMalformed`.
namespace zav::client {

/// In ascending order of the indexes.
std::vector<Record> ReadRecords(const std::string& text);

/// The member that names no threat, "count", is the total. Members that are missing are 0; those of other writers,
/// known by their type, are left out.
LogStatus ReadLogStatus(const std::string& text);

}  // namespace zav::client
