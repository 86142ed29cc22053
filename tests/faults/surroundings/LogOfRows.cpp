#include "LogOfRows.h"

#include "support/Device.h"
#include "support/LogText.h"

namespace zav::test {

LogModel LogOfRows(int now) {
  auto rows = Rows();
  const bool loggingIsOn = TextOf(ParseObject(rows["State"]), "logging_state") == "enabled";
  return {ReadContent(ParseObject(rows["Storage"])), loggingIsOn, now};
}

}  // namespace zav::test
