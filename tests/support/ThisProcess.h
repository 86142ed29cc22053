#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

/// What the kernel says of the process that runs the test.
namespace zav::test {

/// The threads that run now. One that was joined may be listed for a moment yet.
std::set<int> ThreadIds();

/// The signals that a thread blocks: bit N - 1 for signal N. None for a thread that is gone.
std::uint64_t BlockedSignals(int thread);

/// Whether a thread waits for something.
bool IsAsleep(int thread);
/// How often a thread has gone to sleep by now.
long SleepsOf(int thread);

/// The descriptors that are open.
std::set<int> Descriptors();
bool IsCloseOnExec(int descriptor);

/// Whether a file of that name is mapped, as a library that is loaded is.
bool IsMapped(const std::string& name);

/// Opens so many descriptors that the next one is at least `number`, the limit being raised to make room.
/// @return whether there was room.
bool OccupyDescriptorsBelow(int number);

/// Puts descriptor 1 back at its end, for a test that uses it as a host does that closed its standard output.
class OutputDescriptor {
 public:
  OutputDescriptor();
  ~OutputDescriptor();
  static void Free();
  OutputDescriptor(const OutputDescriptor&) = delete;
  OutputDescriptor& operator=(const OutputDescriptor&) = delete;

 private:
  int kept_;
};

}  // namespace zav::test
