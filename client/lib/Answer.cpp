#include "Answer.h"

#include <utility>

namespace zav::client {

Answer::Answer(Connection connection, const Deadline& deadline, ErrorKind late)
    : connection_(std::move(connection)), deadline_(deadline), late_(late) {}

std::int32_t Answer::Integer() {
  std::int32_t value = 0;
  Receive(&value, sizeof(value));
  return value;
}

std::string Answer::Text() {
  std::uint32_t size = 0;
  Receive(&size, sizeof(size));
  if (size > ipc::kMaxStringSize) {
    throw Error(ErrorKind::kMalformed, "the service announced a text of " + std::to_string(size) + " bytes");
  }
  std::string text(size, '\0');
  Receive(text.data(), text.size());
  return text;
}

bool Answer::HasEnded() {
  const Transfer transfer = connection_.AwaitAnswer(deadline_);
  if (transfer == Transfer::kTimedOut) throw Error(late_, "the service did not finish its answer in time");
  return transfer != Transfer::kDone;
}

void Answer::Receive(void* target, std::size_t size) {
  const Transfer transfer = connection_.Receive(target, size, deadline_);
  if (transfer == Transfer::kDone) return;
  if (transfer == Transfer::kTimedOut) throw Error(late_, "the service did not finish its answer in time");
  throw Error(ErrorKind::kMalformed, "the service cut its answer off");
}

}  // namespace zav::client
