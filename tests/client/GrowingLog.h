#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "FakeService.h"

namespace zav::client::test {

/// The largest index and the largest answer of the service.
inline constexpr std::int32_t kMaxIndex = 2000;
inline constexpr std::size_t kLongestAnswer = 16'777'216;

/// A log that is served by the rules of the service, and changed between the requests.
class GrowingLog {
 public:
  struct Entry {
    std::string url;
    std::int32_t timestamp;
    std::string threat;
  };

  GrowingLog() : service_({[this](Peer& peer) { Serve(peer); }}) {}

  /// Its url is the number; the second it came at, too.
  void Add(int number) { Add(std::to_string(number), number); }
  void Add(const std::string& url, std::int32_t timestamp, const std::string& threat = "");
  void AddUpTo(int first, int last);
  void DropOldest(int count = 1);
  /// Empties it; the next index is the one after the last.
  void Reset();
  /// Empties it, and counts from 0 again.
  void ResetAll();
  void Renumber();
  void SetMaxIndex(std::int32_t maxIndex) { maxIndex_ = maxIndex; }
  /// Ends connections without an answer from now on, or serves again.
  void SetBusy(bool busy) { busy_ = busy; }
  /// Lets each answer wait so long.
  void SetDelay(std::chrono::milliseconds delay) { delay_ = delay; }

  std::string path() const { return service_.path(); }
  int requests() const { return service_.connections(); }

 private:
  void Serve(Peer& peer);
  std::string AnswerTo(bool reverse, std::int32_t from, std::int32_t to, std::int32_t count, std::int32_t start);
  std::int32_t Count(std::int32_t from, std::int32_t to);

  std::mutex mutex_;
  std::map<std::int32_t, Entry> entries_;
  std::int32_t last_ = -1;
  std::int32_t maxIndex_ = kMaxIndex;
  std::atomic<bool> busy_ = false;
  std::atomic<std::chrono::milliseconds> delay_{};
  FakeService service_;
};

}  // namespace zav::client::test
