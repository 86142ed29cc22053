#include <algorithm>
#include <atomic>
#include <climits>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "APlugin.h"
#include "Question.h"
#include "support/LogText.h"
#include "support/StoredState.h"
#include "support/WaitUntil.h"

namespace zav::test {
namespace {

using std::chrono::steady_clock;

/// What was asked for and answered, and when.
struct Operation {
  steady_clock::time_point start;
  steady_clock::time_point end;
  Question question;
  std::string answer;
};

/// One line for each.
std::string Text(const std::vector<Operation>& operations) {
  std::ostringstream text;
  for (const Operation& operation : operations) {
    text << operation.start.time_since_epoch().count() << " - " << operation.end.time_since_epoch().count() << ": "
         << operation.question << " = " << operation.answer << "\n";
  }
  return text.str();
}

/// Looks for an order of the operations that keeps theirs in time, where the model gives every answer that was given.
///
/// Only what was going on when the next one to end began can come next; so with few clients the search is short.
class Search {
 public:
  explicit Search(std::vector<Operation> history) : operations(std::move(history)), done(operations.size(), false) {
    std::sort(operations.begin(), operations.end(),
              [](const Operation& left, const Operation& right) { return left.start < right.start; });
  }

  bool FindsAnOrder(const LogModel& log) {
    if (count == operations.size()) return true;
    if (count > best) best = count;
    if (!seen.insert(Fingerprint(log)).second) return false;
    for (const size_t next : Candidates()) {
      LogModel after = log;
      if (AskModel(after, operations[next].question) != operations[next].answer) continue;
      Mark(next, true);
      if (FindsAnOrder(after)) return true;
      Mark(next, false);
    }
    return false;
  }

  /// The most that could be brought into an order.
  size_t Best() const { return best; }
  const std::vector<Operation>& Operations() const { return operations; }

 private:
  void Mark(size_t operation, bool isDone) {
    done[operation] = isDone;
    count += isDone ? 1 : static_cast<size_t>(-1);
    // All before it are done.
    first = 0;
    while (first < done.size() && done[first]) ++first;
  }

  /// Those that began before any that is not done ended.
  std::vector<size_t> Candidates() const {
    auto earliestEnd = steady_clock::time_point::max();
    std::vector<size_t> candidates;
    for (size_t i = first; i < operations.size() && operations[i].start <= earliestEnd; ++i) {
      if (done[i]) continue;
      candidates.push_back(i);
      earliestEnd = std::min(earliestEnd, operations[i].end);
    }
    std::erase_if(candidates, [&](size_t i) { return operations[i].start > earliestEnd; });
    return candidates;
  }

  std::string Fingerprint(const LogModel& log) const {
    std::string key = std::to_string(first) + ":";
    for (size_t i = first; i < done.size(); ++i) key += done[i] ? '1' : '0';
    return key + Describe(log.Content());
  }

  std::vector<Operation> operations;
  std::vector<bool> done;
  size_t first = 0;
  size_t count = 0;
  size_t best = 0;
  std::set<std::string> seen;
};

/// Asks over the socket, until it is not refused. A request that is refused was not read.
std::string AskService(const Question& question) {
  std::string answer;
  const std::string bytes = question.Bytes();
  WaitUntil([&] {
    answer = Exchange(bytes);
    return !answer.empty();
  });
  return question.Readable(answer);
}

class AHistory : public APlugin {
 protected:
  std::string AskHost(const Question& question) { return question.Readable(Command(question.command, question.data)); }

  void Ask(const Question& question) {
    Operation operation;
    operation.question = question;
    operation.start = steady_clock::now();
    operation.answer = question.command.empty() ? AskService(question) : AskHost(question);
    operation.end = steady_clock::now();
    const std::lock_guard guard(mutex);
    history.push_back(operation);
  }

  void Run(int clients, int requests, std::mt19937& random) {
    std::vector<std::thread> threads;
    for (int client = 0; client < clients; ++client) {
      threads.emplace_back([this, client, requests, own = std::mt19937(random())]() mutable {
        for (int i = 0; i < requests; ++i) {
          const std::string name = std::to_string(client) + "-" + std::to_string(i);
          // One of them is the host.
          Ask(client == 0 ? RandomCommand(own) : RandomRequest(own, name));
        }
      });
    }
    for (auto& thread : threads) thread.join();
  }

  std::mutex mutex;
  std::vector<Operation> history;
};

TEST_F(AHistory, OfManyClientsAndCommandsIsThatOfALogUsedByOneAfterAnother) {
  std::mt19937 random = CampaignRandom();
  const int rounds = CampaignLength(10, 10);
  size_t operations = 0;
  for (int round = 0; round < rounds; ++round) {
    // Each round starts anew, and its history is searched by itself.
    ASSERT_TRUE(Succeeds("ResetLogStat"));
    ASSERT_TRUE(Succeeds("UpdateConfig", ConfigData(10, 2000)));
    history.clear();
    Run(5, 25, random);
    operations += history.size();
    Search search(history);
    ASSERT_TRUE(Tried(search.FindsAnOrder(LogModel())))
        << search.Best() << " of " << history.size() << " have an order:\n"
        << Text(search.Operations());
  }
  Note(std::to_string(operations) + " operations");
}

}  // namespace
}  // namespace zav::test
