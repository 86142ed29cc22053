// libpyxclient for C++20: pyxclient.h with objects that end by themselves, times of <chrono>, ranges, and exceptions.
// Header only; link the library. What pyxclient.h says of deadlines, threads and texts holds here too.
//
//   pyxclient::Client client;
//   client.Report("http://a.example", "phishing");
//   for (const pyxclient::Record& record : client.Log({.reverse = true})) std::cout << record.url << '\n';
#pragma once

#include <pyxclient/pyxclient.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pyxclient {

/// Why a call came to nothing; pyxclient.h says it at length.
enum class Failure : pyx_result {
  kNoService = PYX_NO_SERVICE,
  kRefused = PYX_REFUSED,
  kTimedOut = PYX_TIMED_OUT,
  kRejected = PYX_REJECTED,
  kMalformed = PYX_MALFORMED,
  kUnknownOutcome = PYX_UNKNOWN_OUTCOME,
  kOutOfRange = PYX_OUT_OF_RANGE,
  kSystem = PYX_SYSTEM,
  kTooLarge = PYX_TOO_LARGE,
};

/// What the calls throw beside `std::bad_alloc`. `what()` is one line of words.
class Error : public std::runtime_error {
 public:
  Error(Failure whatFailed, const std::string& what) : std::runtime_error(what), failed(whatFailed) {}

  Failure failure() const noexcept { return failed; }

 private:
  Failure failed;
};

/// A second of the device's clock. Those that the log holds lie between 1970 and 2038.
using Time = std::chrono::sys_seconds;

inline constexpr Time kBeginning{std::chrono::seconds(0)};
inline constexpr Time kEnd{std::chrono::seconds(std::numeric_limits<std::int32_t>::max())};

/// One report as the service keeps it.
struct Record {
  std::int32_t index = 0;
  Time time;
  std::string url;
  std::string threat;

  bool operator==(const Record&) const = default;
};

/// Which records to read, in which order.
struct Query {
  /// Between which times, both included.
  Time from = kBeginning;
  Time to = kEnd;
  /// The most records, 0 for all.
  std::int32_t maxCount = 0;
  /// The index to begin at; nothing for the oldest record, or the newest one in reverse.
  std::optional<std::int32_t> startIndex = std::nullopt;
  /// From the newest record to the oldest.
  bool reverse = false;
};

/// A number of reports, in all and by the name of the threat.
struct Tally {
  std::int32_t total = 0;
  std::map<std::string, std::int32_t> byThreat;
};

/// The log in numbers.
struct Status {
  /// How many records are kept at most, how long, and at which index they are numbered anew.
  std::int32_t maxRecords = 0;
  std::chrono::seconds maxPeriod{0};
  std::int32_t maxIndex = 0;
  /// The records that are in the log.
  Tally stored;
  /// The reports since the counters began, also those whose records are gone.
  Tally reported;
};

struct Options {
  /// 1 to 107 bytes.
  std::string socket = PYX_DEFAULT_SOCKET;
  /// Of each call: 1 ms to a day.
  std::chrono::milliseconds timeout{PYX_DEFAULT_TIMEOUT};
  /// Whether a report is sent again where nothing tells if it was logged.
  bool atLeastOnce = false;
};

namespace detail {

using ClientPointer = std::unique_ptr<pyx_client, decltype(&pyx_client_free)>;
using StatusPointer = std::unique_ptr<pyx_status, decltype(&pyx_status_free)>;
using LogPointer = std::unique_ptr<pyx_log, decltype(&pyx_log_close)>;

/// @return a result that is no failure; throws what a failure is.
inline pyx_result Check(pyx_result result, const pyx_client* client) {
  if (result >= 0) return result;
  if (result == PYX_NO_MEMORY) throw std::bad_alloc();
  throw Error(static_cast<Failure>(result), pyx_client_message(client));
}

/// A time as the service counts it; what it cannot count is the next that it can.
inline std::int32_t Seconds(Time time) {
  const auto seconds = time.time_since_epoch().count();
  if (seconds < 0) return 0;
  constexpr std::int32_t kLast = std::numeric_limits<std::int32_t>::max();
  return seconds > kLast ? kLast : static_cast<std::int32_t>(seconds);
}

inline Tally ReadTally(const pyx_status* status, pyx_tally which) {
  Tally tally{pyx_status_total(status, which), {}};
  const char* name = nullptr;
  std::size_t size = 0;
  std::int32_t count = 0;
  for (std::size_t at = 0; pyx_status_threat(status, which, at, &name, &size, &count) == PYX_OK; ++at) {
    tally.byThreat.emplace(std::string(name, size), count);
  }
  return tally;
}

}  // namespace detail

/// A walk over the records: a range to go through once, or one record after the other with `Next`. It may outlive its
/// `Client`, and is for the same thread.
class Log {
 public:
  class Iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = Record;
    using difference_type = std::ptrdiff_t;
    using pointer = const Record*;
    using reference = const Record&;

    Iterator() = default;
    explicit Iterator(Log& itsLog) : log(&itsLog) { ++*this; }

    const Record& operator*() const { return *record; }
    const Record* operator->() const { return &*record; }
    Iterator& operator++() {
      record = log->Next();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t /*end*/) const { return !record; }

   private:
    Log* log = nullptr;
    std::optional<Record> record;
  };

  Log(std::shared_ptr<pyx_client> itsClient, detail::LogPointer itsWalk)
      : client(std::move(itsClient)), walk(std::move(itsWalk)) {}

  /// The next record; nothing where there is none, now: that may be called again, for records that came since.
  std::optional<Record> Next() {
    const pyx_record* record = nullptr;
    pyx_result result = PYX_CHANGED;
    while (result == PYX_CHANGED) {
      result = detail::Check(pyx_log_next(walk.get(), &record), client.get());
      if (result == PYX_CHANGED) changed = true;
    }
    if (result == PYX_END) return std::nullopt;
    return Record{record->index, Time(std::chrono::seconds(record->timestamp)),
                  std::string(record->url, record->url_size), std::string(record->threat, record->threat_size)};
  }

  /// Whether the log was emptied or numbered anew, or dropped records before they were read, since this was last asked.
  bool TakeChanged() { return std::exchange(changed, false); }

  /// Where the walk stands, for `Client::Resume`; empty before the oldest record, and in reverse.
  std::string Cursor() const {
    char text[PYX_CURSOR_SIZE] = "";
    pyx_log_cursor(walk.get(), text);
    return text;
  }

  Iterator begin() { return Iterator(*this); }
  std::default_sentinel_t end() const { return std::default_sentinel; }

 private:
  std::shared_ptr<pyx_client> client;
  detail::LogPointer walk;
  bool changed = false;
};

/// The service as one thread sees it.
class Client {
 public:
  /// Throws `kOutOfRange` for options outside their limits.
  explicit Client(const Options& options = {}) : client(pyx_client_new(), &pyx_client_free) {
    if (client == nullptr) throw std::bad_alloc();
    // A path with a zero byte would be cut there.
    const bool isPath = options.socket.find('\0') == std::string::npos;
    Check(pyx_client_set_socket(client.get(), isPath ? options.socket.c_str() : ""));
    Check(pyx_client_set_timeout(client.get(), options.timeout.count()));
    Check(pyx_client_set_at_least_once(client.get(), options.atLeastOnce ? 1 : 0));
  }

  /// Whether the feature is on.
  bool IsEnabled() { return AskSwitch(&pyx_is_enabled); }

  /// Whether threats are logged.
  bool IsLogging() { return AskSwitch(&pyx_is_logging); }

  /// Reports a visit to a url; see `pyx_report`. Returns once the record is stored.
  void Report(std::string_view url, std::string_view threat = {}) {
    Check(pyx_report(client.get(), url.data(), url.size(), threat.data(), threat.size()));
  }

  pyxclient::Status Status() {
    pyx_status* asked = nullptr;
    Check(pyx_get_status(client.get(), &asked));
    const detail::StatusPointer status(asked, &pyx_status_free);
    const pyx_settings settings = pyx_status_settings(asked);
    return {settings.max_records, std::chrono::seconds(settings.max_period), settings.max_index,
            detail::ReadTally(asked, PYX_STORED), detail::ReadTally(asked, PYX_REPORTED)};
  }

  /// How many records lie between two times, both included.
  std::int32_t Count(Time from = kBeginning, Time to = kEnd) {
    std::int32_t count = 0;
    Check(pyx_count(client.get(), detail::Seconds(from), detail::Seconds(to), &count));
    return count;
  }

  /// Deletes every record; the settings and the counters stay.
  void Reset() { Check(pyx_reset(client.get())); }

  /// The records that match.
  pyxclient::Log Log(const Query& query = {}) {
    const pyx_query asked{detail::Seconds(query.from), detail::Seconds(query.to), query.maxCount,
                          query.startIndex.value_or(-1), query.reverse ? 1 : 0};
    pyx_log* walk = nullptr;
    Check(pyx_log_open(client.get(), &asked, &walk));
    return {client, detail::LogPointer(walk, &pyx_log_close)};
  }

  /// The records that came after a cursor, all after an empty one.
  pyxclient::Log Resume(const std::string& cursor) {
    pyx_log* walk = nullptr;
    Check(pyx_log_resume(client.get(), cursor.c_str(), &walk));
    return {client, detail::LogPointer(walk, &pyx_log_close)};
  }

 private:
  pyx_result Check(pyx_result result) const { return detail::Check(result, client.get()); }

  bool AskSwitch(pyx_result (*ask)(pyx_client*, std::int32_t*)) {
    std::int32_t enabled = 0;
    Check(ask(client.get(), &enabled));
    return enabled != 0;
  }

  std::shared_ptr<pyx_client> client;
};

}  // namespace pyxclient
