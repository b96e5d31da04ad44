"""Wait for a condition, never for a time."""

import time
from collections.abc import Callable
from typing import TypeVar

T = TypeVar("T")

# The bound of every wait for something that must happen, in seconds: long enough for a machine that does ten other
# things. Only a test that fails waits as long.
PATIENCE = 120.0


def until(condition: Callable[[], T], what: str, timeout: float = PATIENCE) -> T:
    """Calls `condition` every few milliseconds until it gives something true, and returns that."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError(f"waited {timeout:g} s in vain for {what}")
        time.sleep(0.002)
