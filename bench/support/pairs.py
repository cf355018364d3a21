"""Two builds of ours beside each other: ratios of measurements that were taken in the same round."""

import math
import statistics

# An interval holds the true median with at least this probability.
CONFIDENCE = 0.95


def ratios(ours, earlier):
    """Round by round, in order of size; a round that one of the two lacks does not count."""
    return sorted(one / other for one, other in zip(ours, earlier) if other)


def interval(ordered):
    """Bounds of the true median; None for fewer than six values.

    The median lies below the k-th smallest value only if fewer than k of n rounds fell below it:
    that is a matter of coins, whatever the measurements' distribution, and an outlier moves nothing.
    """
    count, outside, cut = len(ordered), 0, 0
    while 2 * (outside + math.comb(count, cut)) <= (1 - CONFIDENCE) * 2 ** count:
        outside += math.comb(count, cut)
        cut += 1
    return (ordered[cut - 1], ordered[count - cut]) if cut else None


def difference(ordered):
    """What the ratios show, in words: a change in percent where the interval leaves 1 out."""
    bounds = interval(ordered)
    if not bounds:
        return "too few rounds"
    if bounds[0] <= 1 <= bounds[1]:
        return "none shown"
    return f"{100 * (statistics.median(ordered) - 1):+.1f} %"
