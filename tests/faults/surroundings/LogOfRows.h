#pragma once

#include "support/LogModel.h"

namespace zav::test {

/// The log that a start at that time makes of the rows in the database.
LogModel LogOfRows(int now);

}  // namespace zav::test
