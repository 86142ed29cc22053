"""Rounds that alternate between what is compared, and the spread of what they gave."""
import dataclasses
import statistics


@dataclasses.dataclass(frozen=True)
class Spread:
    """A median with its quartiles."""
    median: float
    low: float
    high: float

    def __str__(self):
        return f"{number(self.median)} [{number(self.low)}–{number(self.high)}]"


def number(value):
    """With three digits that count."""
    if value == int(value) and abs(value) < 1000:
        return str(int(value))
    return f"{value:.3g}" if abs(value) < 1000 else f"{value:,.0f}"


def spread(values):
    values = list(values)
    if len(values) == 1:
        return Spread(values[0], values[0], values[0])
    low, median, high = statistics.quantiles(values, n=4, method="inclusive")
    return Spread(median, low, high)


def alternate(count, contestants):
    """Runs each contestant once a round, every other round in the opposite order, and one round before the others that
    is left out.
    @param contestants  their names, and what runs a slice of each.
    @return the results of each, round by round."""
    results = {name: [] for name in contestants}
    for which in range(count + 1):
        names = list(contestants) if which % 2 == 0 else list(reversed(contestants))
        for name in names:
            result = contestants[name]()
            if which > 0:
                results[name].append(result)
    return results


def ratio(over, under, field):
    """Of each round the one against the other."""
    return spread(one[field] / other[field] for one, other in zip(over, under, strict=True))


def summary(results):
    """The spread of every figure of the rounds' results; of counts the sum."""
    figures = {}
    for field in results[0]:
        values = [result[field] for result in results]
        figures[field] = sum(values) if field in ("refused", "requests", "answered", "stalls") else spread(values)
    return figures
