#pragma once

#include <functional>
#include <string>

namespace zav::test {

/// Runs `body` in a child process, where it may crash, hang or take all memory: the child is ended then, and that is a
/// failure of the calling test. So is an expectation that fails in the child, and an exception that leaves `body`. The
/// caller must not have started threads.
///
/// @param name  what the child does, for the messages.
void RunWatched(const std::string& name, const std::function<void()>& body);

/// In the child: what it does now, for the message should it come to nothing.
void NoteStep(const std::string& step);

}  // namespace zav::test
