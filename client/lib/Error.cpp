#include "Error.h"

namespace zav::client {

Error::Error(ErrorKind kind, const std::string& what) : std::runtime_error(what), kind_(kind) {}

Error::~Error() = default;

}  // namespace zav::client
