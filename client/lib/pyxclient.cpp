// The C interface: makes values and results of what the classes behind it give and throw. Nothing is thrown beyond it.

#include "pyxclient/pyxclient.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "Client.h"
#include "Connection.h"
#include "Cursor.h"
#include "Walk.h"

using zav::client::Client;
using zav::client::Cursor;
using zav::client::Error;
using zav::client::ErrorKind;
using zav::client::LogStatus;
using zav::client::Options;
using zav::client::Walk;

struct pyx_client {
  Options options;
  Client client{options};
  /// Of a fixed size: it is also written when there is no memory.
  std::array<char, 256> message{};
};

struct pyx_status {
  LogStatus status;
};

struct pyx_log {
  pyx_log(pyx_client& itsClient, const auto& begin) : owner(itsClient), walk(owner.client, begin) {}

  pyx_client& owner;
  Walk walk;
  pyx_record record{};
};

namespace {

struct ResultText {
  pyx_result result;
  const char* text;
};

constexpr std::array kTexts = {
    ResultText{PYX_OK, "done"},
    ResultText{PYX_END, "no further record"},
    ResultText{PYX_CHANGED, "the log has changed"},
    ResultText{PYX_NO_SERVICE, "no service"},
    ResultText{PYX_REFUSED, "refused until the deadline"},
    ResultText{PYX_TIMED_OUT, "no answer before the deadline"},
    ResultText{PYX_REJECTED, "the service did not do it"},
    ResultText{PYX_MALFORMED, "malformed answer"},
    ResultText{PYX_UNKNOWN_OUTCOME, "unknown whether it was done"},
    ResultText{PYX_OUT_OF_RANGE, "argument out of range"},
    ResultText{PYX_SYSTEM, "the system failed"},
    ResultText{PYX_NO_MEMORY, "no memory"},
    ResultText{PYX_TOO_LARGE, "a record is larger than an answer"},
};

struct KindResult {
  ErrorKind kind;
  pyx_result result;
};

constexpr std::array kResults = {
    KindResult{ErrorKind::kNoService, PYX_NO_SERVICE},    KindResult{ErrorKind::kRefused, PYX_REFUSED},
    KindResult{ErrorKind::kTimedOut, PYX_TIMED_OUT},      KindResult{ErrorKind::kMalformed, PYX_MALFORMED},
    KindResult{ErrorKind::kRejected, PYX_REJECTED},       KindResult{ErrorKind::kUnknownOutcome, PYX_UNKNOWN_OUTCOME},
    KindResult{ErrorKind::kOutOfRange, PYX_OUT_OF_RANGE}, KindResult{ErrorKind::kTooLarge, PYX_TOO_LARGE},
};

pyx_result ResultOf(ErrorKind kind) {
  const auto found =
      std::find_if(kResults.begin(), kResults.end(), [kind](const auto& entry) { return entry.kind == kind; });
  return found != kResults.end() ? found->result : PYX_SYSTEM;
}

pyx_result Failed(pyx_client& client, pyx_result result, const char* message) {
  std::snprintf(client.message.data(), client.message.size(), "%s", message);
  return result;
}

/// Makes the result of a call that throws what goes wrong. `work` may return a result of its own, or nothing.
template <class Work>
pyx_result Guarded(pyx_client* client, Work work) noexcept {
  if (client == nullptr) return PYX_OUT_OF_RANGE;
  try {
    return work();
  } catch (const Error& error) {
    return Failed(*client, ResultOf(error.kind()), error.what());
  } catch (const std::bad_alloc&) {
    return Failed(*client, PYX_NO_MEMORY, "there is no memory");
  } catch (const std::exception& error) {
    return Failed(*client, PYX_SYSTEM, error.what());
  }
}

template <class... Pointers>
void Expect(const Pointers*... pointers) {
  const bool anyIsNull = ((pointers == nullptr) || ...);
  if (anyIsNull) throw Error(ErrorKind::kOutOfRange, "a pointer is NULL");
}

/// A text whose pointer may be NULL only when it has no bytes.
std::string_view Text(const char* bytes, size_t size) {
  if (size > 0) Expect(bytes);
  return {bytes, size};
}

const LogStatus::Tally& TallyOf(const pyx_status& status, pyx_tally tally) {
  return tally == PYX_STORED ? status.status.stored : status.status.reported;
}

pyx_result AskSwitch(pyx_client* client, int32_t* enabled, bool (Client::*ask)() const) {
  return Guarded(client, [&] {
    Expect(enabled);
    *enabled = (client->client.*ask)() ? 1 : 0;
    return PYX_OK;
  });
}

/// Makes a walk from its beginning, a query or a cursor.
template <class Begin>
void Open(pyx_client& client, const Begin& begin, pyx_log** log) {
  *log = std::make_unique<pyx_log>(client, begin).release();
}

}  // namespace

const char* pyx_result_text(pyx_result result) {
  const auto found =
      std::find_if(kTexts.begin(), kTexts.end(), [result](const auto& entry) { return entry.result == result; });
  return found != kTexts.end() ? found->text : "unknown result";
}

pyx_client* pyx_client_new() {
  try {
    return std::make_unique<pyx_client>().release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void pyx_client_free(pyx_client* client) {
  delete client;
}

pyx_result pyx_client_set_socket(pyx_client* client, const char* path) {
  return Guarded(client, [&] {
    Expect(path);
    client->options.socketPath = zav::client::CheckedPath(path);
    return PYX_OK;
  });
}

pyx_result pyx_client_set_timeout(pyx_client* client, int64_t milliseconds) {
  return Guarded(client, [&] {
    if (milliseconds < 1 || milliseconds > PYX_LONGEST_TIMEOUT) {
      throw Error(ErrorKind::kOutOfRange, "a timeout has 1 to 86400000 milliseconds");
    }
    client->options.timeout = std::chrono::milliseconds(milliseconds);
    return PYX_OK;
  });
}

pyx_result pyx_client_set_at_least_once(pyx_client* client, int32_t on) {
  return Guarded(client, [&] {
    client->options.atLeastOnce = on != 0;
    return PYX_OK;
  });
}

const char* pyx_client_message(const pyx_client* client) {
  return client != nullptr ? client->message.data() : "";
}

pyx_result pyx_is_enabled(pyx_client* client, int32_t* enabled) {
  return AskSwitch(client, enabled, &Client::IsEnabled);
}

pyx_result pyx_is_logging(pyx_client* client, int32_t* enabled) {
  return AskSwitch(client, enabled, &Client::IsLoggingEnabled);
}

pyx_result pyx_report(pyx_client* client, const char* url, size_t url_size, const char* threat, size_t threat_size) {
  return Guarded(client, [&] {
    client->client.Report(Text(url, url_size), Text(threat, threat_size));
    return PYX_OK;
  });
}

pyx_result pyx_count(pyx_client* client, int32_t from, int32_t to, int32_t* count) {
  return Guarded(client, [&] {
    Expect(count);
    *count = client->client.CountRecords({from, to});
    return PYX_OK;
  });
}

pyx_result pyx_reset(pyx_client* client) {
  return Guarded(client, [&] {
    client->client.ResetLog();
    return PYX_OK;
  });
}

pyx_result pyx_get_status(pyx_client* client, pyx_status** status) {
  if (status != nullptr) *status = nullptr;
  return Guarded(client, [&] {
    Expect(status);
    *status = std::make_unique<pyx_status>(pyx_status{client->client.GetLogStatus()}).release();
    return PYX_OK;
  });
}

void pyx_status_free(pyx_status* status) {
  delete status;
}

pyx_settings pyx_status_settings(const pyx_status* status) {
  return status != nullptr ? status->status.settings : pyx_settings{};
}

int32_t pyx_status_total(const pyx_status* status, pyx_tally tally) {
  return status != nullptr ? TallyOf(*status, tally).total : 0;
}

size_t pyx_status_threats(const pyx_status* status, pyx_tally tally) {
  return status != nullptr ? TallyOf(*status, tally).byThreat.size() : 0;
}

pyx_result pyx_status_threat(const pyx_status* status, pyx_tally tally, size_t at, const char** name, size_t* name_size,
                             int32_t* count) {
  if (name == nullptr || name_size == nullptr || count == nullptr) return PYX_OUT_OF_RANGE;
  if (at >= pyx_status_threats(status, tally)) return PYX_OUT_OF_RANGE;
  const auto& [threat, number] = TallyOf(*status, tally).byThreat[at];
  *name = threat.c_str();
  *name_size = threat.size();
  *count = number;
  return PYX_OK;
}

pyx_result pyx_log_open(pyx_client* client, const pyx_query* query, pyx_log** log) {
  if (log != nullptr) *log = nullptr;
  return Guarded(client, [&] {
    Expect(query, log);
    const auto& [from, to, maxCount, startIndex, reverse] = *query;
    Open(*client, zav::client::LogQuery{{from, to}, maxCount, startIndex, reverse != 0}, log);
    return PYX_OK;
  });
}

pyx_result pyx_log_resume(pyx_client* client, const char* cursor, pyx_log** log) {
  if (log != nullptr) *log = nullptr;
  return Guarded(client, [&] {
    Expect(cursor, log);
    const auto begin = Cursor::Parse(cursor);
    if (!begin) throw Error(ErrorKind::kOutOfRange, "the text is no cursor");
    Open(*client, *begin, log);
    return PYX_OK;
  });
}

pyx_result pyx_log_next(pyx_log* log, const pyx_record** record) {
  if (record != nullptr) *record = nullptr;
  if (log == nullptr || record == nullptr) return PYX_OUT_OF_RANGE;
  return Guarded(&log->owner, [&] {
    switch (log->walk.Next()) {
      case Walk::Step::kEnd:
        return PYX_END;
      case Walk::Step::kChanged:
        return PYX_CHANGED;
      case Walk::Step::kRecord:
        break;
    }
    const auto& [index, url, threat, timestamp] = log->walk.Current();
    log->record = {index, timestamp, url.c_str(), url.size(), threat.c_str(), threat.size()};
    *record = &log->record;
    return PYX_OK;
  });
}

pyx_result pyx_log_cursor(const pyx_log* log, char cursor[PYX_CURSOR_SIZE]) {
  if (cursor == nullptr) return PYX_OUT_OF_RANGE;
  cursor[0] = '\0';
  if (log == nullptr || log->walk.IsReverse()) return PYX_OUT_OF_RANGE;
  log->walk.Position().Write(cursor);
  return PYX_OK;
}

void pyx_log_close(pyx_log* log) {
  delete log;
}
