// bench-load: asks a service as fast as it answers, checks every answer, and tells how long each took.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <cmath>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "Exchange.h"
#include "ReadBack.h"

namespace {

using Clock = std::chrono::steady_clock;

/// How long one request may be refused over and over.
constexpr std::chrono::seconds kPatience{60};

struct Options {
  bench::Question question;
  unsigned clients = 1;
  double seconds = 1;
  /// The most requests of each client; 0: no limit but the time.
  unsigned most = 0;
  unsigned warmUp = 0;
  std::string expectedFile;
  bool readBack = false;
};

struct Done {
  std::vector<std::uint32_t> nanoseconds;
  unsigned refused = 0;
  /// Of all requests, those of the warm-up included.
  unsigned answered = 0;
};

/// One client: requests one after the other, each over a connection of its own.
class Client {
 public:
  Client(const Options& chosen, unsigned which)
      : options(chosen), number(which), exchange(bench::MakeExchange(chosen.question)) {}

  void WarmUp() {
    for (unsigned count = 0; count < options.warmUp; ++count) One();
    done.nanoseconds.clear();
    done.refused = 0;
  }

  void Run(Clock::time_point end, const std::atomic<bool>& ended) {
    for (unsigned count = 0; options.most == 0 || count < options.most; ++count) {
      if (ended || Clock::now() >= end) return;
      One();
    }
  }

  const Done& Result() const { return done; }

 private:
  void One() {
    exchange->Prepare(number, done.answered);
    const Clock::time_point start = Clock::now();
    while (!exchange->Run()) {
      ++done.refused;
      if (Clock::now() - start > kPatience) throw std::runtime_error("a request was refused for a minute");
    }
    const auto took = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    done.nanoseconds.push_back(static_cast<std::uint32_t>(std::min<std::int64_t>(took, UINT32_MAX)));
    ++done.answered;
  }

  const Options& options;
  unsigned number;
  std::unique_ptr<bench::Exchange> exchange;
  Done done;
};

/// All clients at once, from the moment that the last one is warm. @return the seconds that it took.
double RunAll(const Options& options, std::vector<std::unique_ptr<Client>>& clients) {
  std::atomic<bool> ended{false};
  Clock::time_point start;
  std::barrier warm(static_cast<std::ptrdiff_t>(clients.size()), [&]() noexcept { start = Clock::now(); });
  std::vector<std::exception_ptr> failures(clients.size());
  std::vector<std::thread> threads;
  const auto duration = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds));
  for (std::size_t which = 0; which < clients.size(); ++which) {
    threads.emplace_back([&, which] {
      try {
        clients[which]->WarmUp();
      } catch (...) {
        failures[which] = std::current_exception();
        ended = true;
      }
      warm.arrive_and_wait();
      try {
        clients[which]->Run(start + duration, ended);
      } catch (...) {
        failures[which] = std::current_exception();
        ended = true;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::chrono::duration<double> took = Clock::now() - start;
  for (const std::exception_ptr& failure : failures) {
    if (failure) std::rethrow_exception(failure);
  }
  return took.count();
}

double Microseconds(const std::vector<std::uint32_t>& sorted, double part) {
  if (sorted.empty()) throw std::runtime_error("no request was answered in time");
  const auto rank = static_cast<std::size_t>(std::ceil(part * static_cast<double>(sorted.size())));
  return sorted[std::max<std::size_t>(rank, 1) - 1] / 1000.0;
}

void Print(const std::vector<std::unique_ptr<Client>>& clients, double seconds) {
  std::vector<std::uint32_t> all;
  unsigned refused = 0;
  unsigned answered = 0;
  for (const auto& client : clients) {
    const Done& done = client->Result();
    all.insert(all.end(), done.nanoseconds.begin(), done.nanoseconds.end());
    refused += done.refused;
    answered += done.answered;
  }
  std::sort(all.begin(), all.end());
  std::cout << "{\"requests\": " << all.size() << ", \"answered\": " << answered << ", \"refused\": " << refused
            << ", \"seconds\": " << seconds << ", \"per_second\": " << static_cast<double>(all.size()) / seconds
            << ", \"p50_us\": " << Microseconds(all, 0.5) << ", \"p99_us\": " << Microseconds(all, 0.99)
            << ", \"max_us\": " << Microseconds(all, 1) << "}\n";
}

void Run(Options& options) {
  if (!options.expectedFile.empty()) {
    std::ifstream file(options.expectedFile, std::ios::binary);
    options.question.expected.assign(std::istreambuf_iterator<char>(file), {});
    if (options.question.expected.empty()) throw std::runtime_error("nothing is in " + options.expectedFile);
  }
  const std::string& socket = options.question.socket;
  const std::int64_t before = options.readBack ? bench::RecordsEverAdded(socket) : 0;
  std::vector<std::unique_ptr<Client>> clients;
  for (unsigned number = 0; number < options.clients; ++number) {
    clients.push_back(std::make_unique<Client>(options, number));
  }
  const double seconds = RunAll(options, clients);
  if (options.readBack) {
    std::vector<unsigned> answered(clients.size());
    std::transform(clients.begin(), clients.end(), answered.begin(),
                   [](const auto& client) { return client->Result().answered; });
    bench::ReadBack(socket, options.question.records, before, answered);
  }
  Print(clients, seconds);
}

void Describe(CLI::App& app, Options& options) {
  bench::Question& question = options.question;
  app.add_option("--socket", question.socket, "The service's socket")->required();
  app.add_option("--kind", question.kind, "What is asked for")
      ->required()
      ->check(CLI::IsMember(bench::ExchangeKinds()));
  app.add_option("--clients", options.clients, "How many at once")->check(CLI::Range(1, 1000));
  app.add_option("--seconds", options.seconds, "For how long");
  app.add_option("--most", options.most, "The most requests of each client");
  app.add_option("--warm-up", options.warmUp, "Requests of each client before that, which are not measured");
  app.add_option("--expect", options.expectedFile, "The file that holds every answer of a fixed request");
  app.add_option("--records", question.most, "Of a range: the most records");
  app.add_option("--start", question.start, "Of a range: the index to begin at");
  app.add_option("--url-size", question.records.urlSize, "Of a report: the bytes of a url")
      ->check(CLI::Range(bench::Records::kShortestUrl, std::size_t{16'777'216}));
  app.add_option("--seed", question.records.seed, "Of a report: what its text is made of");
  app.add_option("--run", question.records.run, "Of a report: a number that no run before had");
  app.add_flag("--read-back", options.readBack, "Compares the plug-in's log with the reports at the end");
  app.add_option("--file", question.file, "Where rsyslog writes");
  app.add_option("--control", question.control, "Where journald is asked");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    CLI::App app("Asks a service as fast as it answers, checks each answer, and tells how long they took, as JSON.");
    Describe(app, options);
    CLI11_PARSE(app, argc, argv);
    Run(options);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "bench-load: " << error.what() << '\n';
    return 1;
  }
}
