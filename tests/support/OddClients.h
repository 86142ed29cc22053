#pragma once

#include <memory>
#include <ostream>
#include <string>

#include "support/RawClient.h"

namespace zav::test {

/// The ways in which a client keeps the service waiting.
enum class Stuck { kSilent, kInTheMiddleOfAString, kNotReadingItsReply };
inline constexpr Stuck kAllStuck[] = {Stuck::kSilent, Stuck::kInTheMiddleOfAString, Stuck::kNotReadingItsReply};

std::ostream& operator<<(std::ostream& out, Stuck how);

/// Puts so much into the stored log that the reply with it exceeds what sockets hold. Before the feature's state is
/// first used.
void StoreHugeLog();

/// A client that is being served and keeps the service waiting when this returns. `kNotReadingItsReply` needs
/// `StoreHugeLog`. @throws std::runtime_error when it does not come to that before the deadline.
std::unique_ptr<RawClient> MakeStuckClient(Stuck how);

/// Connects a client that has bound a name, and so a file, of its own. @return its descriptor, the caller's.
int ConnectFrom(const std::string& name);

/// Waits until the service has taken all that a client sent. @return whether it did.
bool WaitUntilTaken(const RawClient& client);
/// Waits until a client has something to read. @return whether it came.
bool WaitUntilReadable(const RawClient& client);

}  // namespace zav::test
