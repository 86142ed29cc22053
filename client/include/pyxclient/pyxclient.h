/*
 * libpyxclient: the threat log of the device, for its programs. C; pyxclient.hpp is the same for C++.
 *
 *   pyx_client* client = pyx_client_new();
 *   if (pyx_report(client, "http://a.example", 16, "phishing", 8) != PYX_OK) puts(pyx_client_message(client));
 *   pyx_client_free(client);
 *
 * Every call is one request, or a few of a walk over the log, each on a connection of its own, and leaves nothing open:
 * between calls a client is only its settings. No function writes anything, changes a signal's handler, ends the
 * process or throws.
 *
 * Deadlines. Every call returns by the client's deadline, 5 s after its beginning unless set, on the monotonic clock.
 * The service takes one connection at a time and refuses those that come meanwhile: a refused request is sent again,
 * after a pause that grows from 1 ms to 64 ms, until the deadline. An answer that has come by then is still read, which
 * takes a moment more where it is of megabytes.
 *
 * Threads. A client, and what it opened, is for one thread at a time. Different ones may be used at once: they share
 * nothing.
 *
 * Texts from the log are what some program of the device reported: any bytes, control characters and zero bytes among
 * them, not necessarily UTF-8. They are followed by a zero byte that their size does not count.
 */
#ifndef PYXCLIENT_PYXCLIENT_H
#define PYXCLIENT_PYXCLIENT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PYX_API __attribute__((visibility("default")))

/* The version of this interface. A library of another major version has another soname. */
#define PYX_VERSION_MAJOR 1
#define PYX_VERSION_MINOR 0

/* Where the plug-in listens. */
#define PYX_DEFAULT_SOCKET "/tmp/zav-pyx-plugin/.socket"
/* How long a call may take, in milliseconds. */
#define PYX_DEFAULT_TIMEOUT 5000
#define PYX_LONGEST_TIMEOUT 86400000
/* The most bytes of a url, and of a threat's name. */
#define PYX_LONGEST_TEXT 16777216
/* The room that the text of a cursor takes, its zero byte included. */
#define PYX_CURSOR_SIZE 64

/* What came of a call: 0 or above when it did what it is for, a negative number when not. */
typedef int32_t pyx_result;
enum {
  PYX_OK = 0,
  /* Of pyx_log_next: there is no further record. */
  PYX_END = 1,
  /* Of pyx_log_next: the log was emptied or numbered anew since the cursor was taken, and records that came since may
     be gone. Reading goes on: the next call gives the first record that may be new. */
  PYX_CHANGED = 2,

  /* Nobody serves the socket: no such file, nobody behind it, or no right to connect. */
  PYX_NO_SERVICE = -1,
  /* The service was there and ended every connection without an answer, until the deadline. The request was not carried
     out. */
  PYX_REFUSED = -2,
  /* The deadline passed without a whole answer. A report or a reset that ends so was not taken by the service; another
     request may still be carried out. */
  PYX_TIMED_OUT = -3,
  /* The service answered that it did not do what was asked. */
  PYX_REJECTED = -4,
  /* Something answered that does not speak the protocol, or its answer was cut off. Of a report or a reset this says
     nothing about whether it was carried out. */
  PYX_MALFORMED = -5,
  /* Of a report or a reset: the service may have taken it whole, and nothing tells whether it was carried out. To
     report it again may log it twice; to reset again may delete what came meanwhile. */
  PYX_UNKNOWN_OUTCOME = -6,
  /* An argument lies outside its limits, or is NULL where it may not be; nothing was sent. */
  PYX_OUT_OF_RANGE = -7,
  /* This machine could not do its part: no descriptors. */
  PYX_SYSTEM = -8,
  /* Nor this: no memory. */
  PYX_NO_MEMORY = -9,
  /* Of pyx_log_next: a single record is larger than an answer can be. The next call goes on behind it. */
  PYX_TOO_LARGE = -10
};

/* One line of words for a result, such as "no service"; for a number that is none, "unknown result". Never NULL. */
PYX_API const char* pyx_result_text(pyx_result result);

/* -- Clients ------------------------------------------------------------------------------------------------------- */

/* The service as one thread sees it, and how to reach it. */
typedef struct pyx_client pyx_client;

/* Makes a client of the default socket and timeout. NULL when there is no memory. */
PYX_API pyx_client* pyx_client_new(void);

/* Ends a client; NULL is ignored. What it opened has to be closed before. */
PYX_API void pyx_client_free(pyx_client* client);

/* Names the socket: 1 to 107 bytes. PYX_OUT_OF_RANGE keeps the one before. */
PYX_API pyx_result pyx_client_set_socket(pyx_client* client, const char* path);

/* Sets how long each call may take: 1 to PYX_LONGEST_TIMEOUT milliseconds. PYX_OUT_OF_RANGE keeps the time before. */
PYX_API pyx_result pyx_client_set_timeout(pyx_client* client, int64_t milliseconds);

/* Whether a report is sent again where nothing tells if the service has logged it, until one is acknowledged: it is
   logged at least once then, and may be logged more than once. Off (0) unless set. */
PYX_API pyx_result pyx_client_set_at_least_once(pyx_client* client, int32_t on);

/* What went wrong in the last call of this client, or of what it opened, that failed: one line of words, without a full
   stop and without anything that the service sent; empty when none has. Never NULL; good until the next call. */
PYX_API const char* pyx_client_message(const pyx_client* client);

/* -- Requests ------------------------------------------------------------------------------------------------------ */

/* Whether the feature is on: 1 or 0 into *enabled. */
PYX_API pyx_result pyx_is_enabled(pyx_client* client, int32_t* enabled);

/* Whether threats are logged: 1 or 0 into *enabled. */
PYX_API pyx_result pyx_is_logging(pyx_client* client, int32_t* enabled);

/* Reports a visit to a url, of PYX_LONGEST_TEXT bytes at most, whose threat has a name of as many at most; one of no
   bytes is logged as "undefined". Returns PYX_OK once the record is stored. PYX_REJECTED: the url is empty, or the
   record could not be stored, and may then be stored with the next report.

   It is sent again only where it is certain that the service has not taken it whole. Where that is not certain the
   result is PYX_UNKNOWN_OUTCOME, unless pyx_client_set_at_least_once was asked for. */
PYX_API pyx_result pyx_report(pyx_client* client, const char* url, size_t url_size, const char* threat,
                              size_t threat_size);

/* How many records lie between two times, both included, in seconds since the epoch, neither negative. */
PYX_API pyx_result pyx_count(pyx_client* client, int32_t from, int32_t to, int32_t* count);

/* Deletes every record; the settings and the counters stay. PYX_REJECTED: the empty log could not be stored. Like a
   report it is sent again only where it is certain that the service has not taken it whole; else the result is
   PYX_UNKNOWN_OUTCOME. */
PYX_API pyx_result pyx_reset(pyx_client* client);

/* -- The log in numbers -------------------------------------------------------------------------------------------- */

/* The settings: the records are numbered anew when the last index reaches max_index; at most max_records are kept, none
   longer than max_period seconds. 0 for one that the service did not tell. */
typedef struct pyx_settings {
  int32_t max_index;
  int32_t max_records;
  int32_t max_period;
} pyx_settings;

/* What was counted: the records that are in the log, or the reports since the counters began, also those whose records
   are gone. */
typedef enum pyx_tally { PYX_STORED = 0, PYX_REPORTED = 1 } pyx_tally;

/* The settings and counters as they were when asked. Its threads are those of a constant: many at once may read it. */
typedef struct pyx_status pyx_status;

/* Asks for the status; *status is to be freed, and NULL after a failure. */
PYX_API pyx_result pyx_get_status(pyx_client* client, pyx_status** status);

/* NULL is ignored. */
PYX_API void pyx_status_free(pyx_status* status);

PYX_API pyx_settings pyx_status_settings(const pyx_status* status);

/* How many there are in all. */
PYX_API int32_t pyx_status_total(const pyx_status* status, pyx_tally tally);

/* How many names of threats were counted. */
PYX_API size_t pyx_status_threats(const pyx_status* status, pyx_tally tally);

/* The number `at` of them, from 0 up, in the order of their bytes: its name and how many. The name is good as long as
   the status. PYX_OUT_OF_RANGE: there is no such number, and nothing is set. */
PYX_API pyx_result pyx_status_threat(const pyx_status* status, pyx_tally tally, size_t at, const char** name,
                                     size_t* name_size, int32_t* count);

/* -- Records ------------------------------------------------------------------------------------------------------- */

/* Which records to read, in which order. */
typedef struct pyx_query {
  /* Between which times, both included, in seconds since the epoch, neither negative. */
  int32_t from;
  int32_t to;
  /* The most records, 0 for all. */
  int32_t max_count;
  /* The index to begin at; -1 for the oldest record, or the newest one in reverse. */
  int32_t start_index;
  /* 0: from the oldest to the newest; else from the newest to the oldest. */
  int32_t reverse;
} pyx_query;

/* All records, the oldest first. */
#define PYX_QUERY_ALL \
  { 0, INT32_MAX, 0, -1, 0 }

/* One report as the service keeps it. Its texts are good until the next call for the same log. */
typedef struct pyx_record {
  /* Its number in the log; a log that is numbered anew changes it. */
  int32_t index;
  /* When it came, in seconds since the epoch, by the clock of the device. */
  int32_t timestamp;
  const char* url;
  size_t url_size;
  const char* threat;
  size_t threat_size;
} pyx_record;

/* A walk over the records. It asks for them in pieces that fit into one answer, and holds one piece in memory. */
typedef struct pyx_log pyx_log;

/* Begins a walk; sends nothing yet. *log is to be closed before its client is freed, and NULL after a failure.
   PYX_OUT_OF_RANGE: a number is negative (but -1 to begin at), or `to` lies before `from`. */
PYX_API pyx_result pyx_log_open(pyx_client* client, const pyx_query* query, pyx_log** log);

/* Begins a walk, the oldest first, over the records that came after the one that a cursor stands at, in this process or
   an earlier one; after an empty cursor, over all. Sends nothing yet. PYX_OUT_OF_RANGE: the text is no cursor. */
PYX_API pyx_result pyx_log_resume(pyx_client* client, const char* cursor, pyx_log** log);

/* The next record into *record; NULL with any result but PYX_OK. After PYX_END, which is no failure, a walk from the
   oldest on may go on: the next call asks for records that came since, so that calling it now and then follows the log.
   After PYX_CHANGED, and after a failure, the next call goes on where this one was.

   What is added or dropped while the walk goes on is read or not, as it comes; no record is given twice, and none is
   left out that was there the whole time, unless the log is emptied or numbered anew and nothing tells where the walk
   was: then the result is PYX_CHANGED once, and a walk in reverse ends.

   After PYX_TOO_LARGE the next call goes on behind the record that is larger than an answer can be.
 */
PYX_API pyx_result pyx_log_next(pyx_log* log, const pyx_record** record);

/* The cursor of the last record that was given, as one word of ASCII, its zero byte included; that of the walk's
   beginning before the first one. A walk in reverse has none: PYX_OUT_OF_RANGE, and an empty text. */
PYX_API pyx_result pyx_log_cursor(const pyx_log* log, char cursor[PYX_CURSOR_SIZE]);

/* Ends a walk; NULL is ignored. */
PYX_API void pyx_log_close(pyx_log* log);

#ifdef __cplusplus
}
#endif

#endif
