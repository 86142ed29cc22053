#pragma once

#include <sys/un.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/RawClient.h"

/// Requests as bytes, and what a service may answer to bytes that may be no request.
namespace zav::test {

/// The address of a path, of up to 108 bytes: a zero at the end is not needed.
sockaddr_un Address(const std::string& path);

/// A length in front of a string, as it stands on the wire; it need not be the string's.
std::string Length(std::uint32_t length);
std::string String(const std::string& text);
std::string HeaderBytes(ipc::Method method);
/// A whole request for the log.
std::string GetLogBytes();
/// A whole report.
std::string ReportBytes(const std::string& url, const std::string& threat);

/// One whole request of each method.
struct Sample {
  ipc::Method method;
  std::string bytes;
};
std::vector<Sample> AllRequests();

/// Sends bytes on a connection of its own, and no more after them. @return all that came back.
std::string Exchange(const std::string& bytes);
/// The rest of what a connection sends, to its end.
std::string ReceiveAll(const RawClient& client);

/// Whether an answer is what the protocol says of a request that ends after these bytes: read by the rules of the
/// protocol, not by the service's code. An answer of records is looked at for its form only.
/// @param pieces  where the bytes were sent in two pieces, the length of the first, which the service had taken before
///                the second came: what travels in one piece was not received then.
bool IsAnswerTo(const std::string& bytes, const std::string& answer, std::optional<size_t> pieces = std::nullopt);

/// Asks for the feature's state until it is answered. @return whether that was within the time that a client before it
/// may take.
bool AnHonestClientIsServed();

}  // namespace zav::test
