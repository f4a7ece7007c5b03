"""Waits of the tests, each with a limit."""

import select
import time


def waiter(limit_s):
    """wait_until(condition, what) returns the condition's value once that is true, and fails after `limit_s`."""
    def wait_until(condition, what, limit_s=limit_s):
        limit = time.monotonic() + limit_s
        while True:
            result = condition()
            if result:
                return result
            assert time.monotonic() < limit, f"{what} within {limit_s} s"
            select.select([], [], [], 0.01)
    return wait_until
