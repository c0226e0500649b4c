"""What every piece of the browser check uses: its failure, and waiting within a limit."""

import time


class CheckFailed(Exception):
    """The first thing that was not as it should be, as one line."""


def require(holds, problem):
    if not holds:
        raise CheckFailed(problem)


def await_that(what, condition, limit_seconds, began=None):
    """Returns the seconds from the beginning, by time.monotonic and now unless given, until the
    condition held; it is looked at every 0.1 s."""
    began = time.monotonic() if began is None else began
    while not condition():
        if time.monotonic() - began > limit_seconds:
            raise CheckFailed(f"not seen within {limit_seconds} s: {what}")
        time.sleep(0.1)
    return time.monotonic() - began
