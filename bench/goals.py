"""What the plug-in has to reach. A goal that is missed is a figure, and no failure of the bench."""
import dataclasses


@dataclasses.dataclass(frozen=True)
class Goal:
    """One line of the table of goals."""
    text: str
    # The name of a figure of the run.
    figure: str
    # "at least" or "at most".
    side: str
    bound: float
    unit: str = ""

    def is_met(self, value):
        return value >= self.bound if self.side == "at least" else value <= self.bound


READS = (("state", "4"), ("status", "16"))
GOALS = (
    *(Goal(f"a read (method {number}), 1 client, against the floor: throughput", f"read.{kind}.1.throughput",
           "at least", 0.95) for kind, number in READS),
    *(Goal(f"a read (method {number}), 1 client, against the floor: p99", f"read.{kind}.1.p99", "at most", 1.2)
      for kind, number in READS),
    *(Goal(f"a read (method {number}), {clients} clients, against a floor that serves one at a time: throughput",
           f"read.{kind}.{clients}.throughput-one", "at least", 0.8) for kind, number in READS for clients in (4, 16)),
    Goal("a report, log of 10 records, against the floor: throughput", "report.10.throughput", "at least", 0.9),
    Goal("a report, log of 1,000 records, against the floor with such rows: throughput", "report.1000.throughput",
         "at least", 0.8),
    Goal("instructions of a report, 1,000 records against 10", "instructions.report.growth", "at most", 8, "times"),
    Goal("the last 10 of 1,000 records against the only 10: time", "range.last.growth", "at most", 1.3, "times"),
    Goal("the lines of the debug level, in a file: what they add to a report", "log-lines.cost", "at most", 15, "%"),
    Goal("clients one after the other: refusals", "sequential.refused", "at most", 0),
    Goal("clients one after the other: stalls (requests of 100 ms and more)", "sequential.stalls", "at most", 0),
    Goal("clients one after the other: p99 against p50", "sequential.p99", "at most", 3, "times"),
    Goal("wake-ups at rest, a minute", "rest.wake-ups", "at most", 0),
    Goal("private anonymous memory at rest", "rest.anonymous.new", "at most", 1.0, "MB"),
    Goal("the same with 1,000 ordinary records", "rest.anonymous.1000", "at most", 2.0, "MB"),
    Goal("peak memory of a report of 16 MB into ten such, against the stored text", "rest.peak", "at most", 3, "times"),
    Goal("libzav-pyx-plugin.so, stripped", "rest.size", "at most", 200, "KB"),
)
