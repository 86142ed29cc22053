"""The threat log of the device, for Python: libpyxclient with objects, datetimes, iterators and exceptions.

    import pyxclient

    client = pyxclient.Client()
    client.report("http://a.example", "phishing")
    for record in client.log(reverse=True):
        print(record.time, record.url)

What the library's header, pyxclient.h, says of deadlines, threads and texts holds here too. Texts are str; bytes that are
no UTF-8 stand in them as the lone surrogates of the error handler "surrogateescape", both ways. Needs nothing but the
library and Python 3.9.
"""

from __future__ import annotations

import ctypes
import datetime
import enum
from collections.abc import Iterator
from typing import NamedTuple, Optional, Union

__all__ = ["Client", "Error", "Failure", "Log", "Record", "Status", "Tally", "Text", "Time"]

Text = Union[str, bytes]
# A time is a datetime with a time zone, or seconds since the epoch.
Time = Union[datetime.datetime, int, float]

_LAST = 2**31 - 1
_CURSOR_SIZE = 64
_OK, _END, _CHANGED = range(3)


class Failure(enum.IntEnum):
    """Why a call came to nothing; pyxclient.h says it at length."""

    NO_SERVICE = -1
    REFUSED = -2
    TIMED_OUT = -3
    REJECTED = -4
    MALFORMED = -5
    UNKNOWN_OUTCOME = -6
    OUT_OF_RANGE = -7
    SYSTEM = -8
    TOO_LARGE = -10


class Error(Exception):
    """What the calls raise beside MemoryError. Its text is one line of words."""

    def __init__(self, failure: Failure, message: str) -> None:
        super().__init__(message)
        self.failure = failure


class Record(NamedTuple):
    """One report as the service keeps it."""

    index: int
    time: datetime.datetime
    url: str
    threat: str


class Tally(NamedTuple):
    """A number of reports, in all and by the name of the threat."""

    total: int
    by_threat: dict[str, int]


class Status(NamedTuple):
    """The log in numbers: how many records are kept at most, how long, at which index they are numbered anew; the records
    that are in it, and the reports since the counters began, also those whose records are gone."""

    max_records: int
    max_period: datetime.timedelta
    max_index: int
    stored: Tally
    reported: Tally


class _Query(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int32) for name in ("begin", "end", "max_count", "start_index", "reverse")]


class _Record(ctypes.Structure):
    _fields_ = [
        ("index", ctypes.c_int32),
        ("timestamp", ctypes.c_int32),
        ("url", ctypes.POINTER(ctypes.c_char)),
        ("url_size", ctypes.c_size_t),
        ("threat", ctypes.POINTER(ctypes.c_char)),
        ("threat_size", ctypes.c_size_t),
    ]


class _Settings(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int32) for name in ("max_index", "max_records", "max_period")]


def _load() -> ctypes.CDLL:
    library = ctypes.CDLL("libpyxclient.so.1")
    handle, text, size, number = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_size_t, ctypes.c_int32
    numbers, handles = ctypes.POINTER(ctypes.c_int32), ctypes.POINTER(ctypes.c_void_p)
    texts, sizes = ctypes.POINTER(ctypes.POINTER(ctypes.c_char)), ctypes.POINTER(ctypes.c_size_t)
    records = ctypes.POINTER(ctypes.POINTER(_Record))
    for name, result, *arguments in (
        ("client_new", handle),
        ("client_free", None, handle),
        ("client_set_socket", number, handle, text),
        ("client_set_timeout", number, handle, ctypes.c_int64),
        ("client_set_at_least_once", number, handle, number),
        ("client_message", text, handle),
        ("is_enabled", number, handle, numbers),
        ("is_logging", number, handle, numbers),
        ("report", number, handle, text, size, text, size),
        ("count", number, handle, number, number, numbers),
        ("reset", number, handle),
        ("get_status", number, handle, handles),
        ("status_free", None, handle),
        ("status_settings", _Settings, handle),
        ("status_total", number, handle, number),
        ("status_threat", number, handle, number, size, texts, sizes, numbers),
        ("log_open", number, handle, ctypes.POINTER(_Query), handles),
        ("log_resume", number, handle, text, handles),
        ("log_next", number, handle, records),
        ("log_cursor", number, handle, text),
        ("log_close", None, handle),
    ):
        function = getattr(library, "pyx_" + name)
        function.restype, function.argtypes = result, arguments
    return library


_library = _load()


def _bytes(text: Text) -> bytes:
    return text if isinstance(text, bytes) else text.encode("utf-8", "surrogateescape")


def _text(pointer: ctypes._Pointer[ctypes.c_char], size: int) -> str:
    return ctypes.string_at(pointer, size).decode("utf-8", "surrogateescape")


def _seconds(time: Time) -> int:
    """A time as the service counts it; what it cannot count is the next that it can."""
    if isinstance(time, datetime.datetime):
        if time.tzinfo is None:
            raise ValueError("a time needs its time zone")
        time = time.timestamp()
    return max(0, min(int(time), _LAST))


class Log(Iterator[Record]):
    """A walk over the records: an iterator that may be gone on with after its end, for records that came since."""

    def __init__(self, client: Client, walk: ctypes.c_void_p) -> None:
        self._client, self._walk = client, walk
        # Whether the log was emptied or numbered anew, or dropped records before they were read; to be cleared by hand.
        self.changed = False

    def __del__(self) -> None:
        _library.pyx_log_close(self._walk)

    def __next__(self) -> Record:
        record = ctypes.POINTER(_Record)()
        result = _CHANGED
        while result == _CHANGED:
            result = self._client._check(_library.pyx_log_next(self._walk, ctypes.byref(record)))
            self.changed = self.changed or result == _CHANGED
        if result == _END:
            raise StopIteration
        found = record.contents
        time = datetime.datetime.fromtimestamp(found.timestamp, datetime.timezone.utc)
        return Record(found.index, time, _text(found.url, found.url_size), _text(found.threat, found.threat_size))

    @property
    def cursor(self) -> str:
        """Where the walk stands, for `Client.resume`; empty before the oldest record, and in reverse."""
        cursor = ctypes.create_string_buffer(_CURSOR_SIZE)
        _library.pyx_log_cursor(self._walk, cursor)
        return cursor.value.decode("ascii")


class Client:
    """The service as one thread sees it.

    socket: its path, of 1 to 107 bytes; nothing for the plug-in's own. timeout: of each call, in seconds: 0.001 to 86400.
    at_least_once: whether a report is sent again where nothing tells if it was logged. Raises Error with
    Failure.OUT_OF_RANGE for what lies outside these limits.
    """

    def __init__(self, socket: Optional[Text] = None, timeout: float = 5.0, at_least_once: bool = False) -> None:
        self._handle = ctypes.c_void_p(_library.pyx_client_new())
        if not self._handle:
            raise MemoryError
        if socket is not None:
            # A path with a zero byte would be cut there.
            path = _bytes(socket)
            self._check(_library.pyx_client_set_socket(self._handle, b"" if b"\0" in path else path))
        # What no 64 bits hold, and what is no number, is out of range too.
        milliseconds = int(timeout * 1000) if 0 < timeout <= 86400 else 0
        self._check(_library.pyx_client_set_timeout(self._handle, milliseconds))
        self._check(_library.pyx_client_set_at_least_once(self._handle, at_least_once))

    def __del__(self) -> None:
        _library.pyx_client_free(self._handle)

    def is_enabled(self) -> bool:
        """Whether the feature is on."""
        return self._number(_library.pyx_is_enabled) == 1

    def is_logging(self) -> bool:
        """Whether threats are logged."""
        return self._number(_library.pyx_is_logging) == 1

    def report(self, url: Text, threat: Text = "") -> None:
        """Reports a visit to a url, each text of 16,777,216 bytes at most. Returns once the record is stored."""
        whole_url, whole_threat = _bytes(url), _bytes(threat)
        self._check(_library.pyx_report(self._handle, whole_url, len(whole_url), whole_threat, len(whole_threat)))

    def status(self) -> Status:
        """The settings and counters."""
        status = ctypes.c_void_p()
        self._check(_library.pyx_get_status(self._handle, ctypes.byref(status)))
        try:
            settings = _library.pyx_status_settings(status)
            return Status(
                settings.max_records,
                datetime.timedelta(seconds=settings.max_period),
                settings.max_index,
                _tally(status, 0),
                _tally(status, 1),
            )
        finally:
            _library.pyx_status_free(status)

    def count(self, begin: Time = 0, end: Time = _LAST) -> int:
        """How many records lie between two times, both included."""
        return self._number(_library.pyx_count, _seconds(begin), _seconds(end))

    def reset(self) -> None:
        """Deletes every record; the settings and the counters stay."""
        self._check(_library.pyx_reset(self._handle))

    def log(
        self,
        begin: Time = 0,
        end: Time = _LAST,
        max_count: int = 0,
        start_index: Optional[int] = None,
        reverse: bool = False,
    ) -> Log:
        """The records between two times, both included, and at most so many (0: all), from an index on (nothing: the oldest
        record, or the newest one in reverse)."""
        start = -1 if start_index is None else start_index
        for number in (max_count, start):
            if not -(2**31) <= number <= _LAST:
                raise Error(Failure.OUT_OF_RANGE, "a number has more than 32 bits")
        query = _Query(_seconds(begin), _seconds(end), max_count, start, reverse)
        walk = ctypes.c_void_p()
        self._check(_library.pyx_log_open(self._handle, ctypes.byref(query), ctypes.byref(walk)))
        return Log(self, walk)

    def resume(self, cursor: str = "") -> Log:
        """The records that came after a cursor, all after an empty one."""
        walk = ctypes.c_void_p()
        self._check(_library.pyx_log_resume(self._handle, cursor.encode("ascii", "replace"), ctypes.byref(walk)))
        return Log(self, walk)

    def _number(self, ask: ctypes._NamedFuncPointer, *arguments: int) -> int:
        number = ctypes.c_int32()
        self._check(ask(self._handle, *arguments, ctypes.byref(number)))
        return number.value

    def _check(self, result: int) -> int:
        if result >= 0:
            return result
        if result not in Failure._value2member_map_:
            raise MemoryError
        raise Error(Failure(result), _library.pyx_client_message(self._handle).decode())


def _tally(status: ctypes.c_void_p, which: int) -> Tally:
    by_threat: dict[str, int] = {}
    name, size, count = ctypes.POINTER(ctypes.c_char)(), ctypes.c_size_t(), ctypes.c_int32()
    places = ctypes.byref(name), ctypes.byref(size), ctypes.byref(count)
    while _library.pyx_status_threat(status, which, len(by_threat), *places) == _OK:
        by_threat[_text(name, size.value)] = count.value
    return Tally(_library.pyx_status_total(status, which), by_threat)
