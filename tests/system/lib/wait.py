"""Waiting: always for a condition, always with a deadline."""
import time

DEADLINE = 20.0  # seconds; generous because sanitizers and a busy machine are slow
QUIET = 0.3  # how long "nothing happens" is watched


def until(condition, what, seconds=DEADLINE):
    """Polls `condition` until it is true and returns its value."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, f"not within {seconds} s: {what}"
        time.sleep(0.005)
