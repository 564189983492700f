"""The only way of waiting here: for an event, with a bound."""

import os
import threading
import time

# Sanitizers, emulators and a busy machine make everything slower, never wrong: bounds say when to
# give up, and this factor stretches them.
PATIENCE = float(os.environ.get("BONJOUR_LAB_PATIENCE", "3"))


class TimedOut(AssertionError):
    """What a test waited for did not happen within its bound."""


_POLL = 0.01


def wait_until(holds, what, bound=10.0):
    """Waits for a state that no event announces; raises TimedOut."""
    deadline = time.monotonic() + bound * PATIENCE
    while not holds():
        if time.monotonic() > deadline:
            raise TimedOut(f"{bound * PATIENCE} s passed without: {what}")
        time.sleep(_POLL)


class Journal:
    """A list that threads append to and wait on. An item keeps its index."""

    def __init__(self):
        self._items = []
        self._forgotten = 0
        self._changed = threading.Condition()
        self._closed = False

    def append(self, item):
        with self._changed:
            self._items.append(item)
            self._changed.notify_all()

    def close(self):
        """Says that nothing will be appended any more; waiters give up at once."""
        with self._changed:
            self._closed = True
            self._changed.notify_all()

    def forget(self):
        """Drops the items so far, which would pile up in a long life."""
        with self._changed:
            self._forgotten += len(self._items)
            self._items.clear()

    def __len__(self):
        with self._changed:
            return self._forgotten + len(self._items)

    def items(self, since=0, until=None):
        with self._changed:
            end = len(self._items) if until is None else max(0, until - self._forgotten)
            return self._items[max(0, since - self._forgotten) : end]

    def follow(self, take, at_end):
        """Starts a thread that passes every item to `take`, and calls `at_end` once the journal is
        closed."""

        def run():
            position = 0
            while True:
                with self._changed:
                    self._changed.wait_for(lambda: self._closed or position < len(self))
                    fresh = self.items(position)
                    position = len(self)
                for item in fresh:
                    take(item)
                if not fresh:
                    at_end()
                    return

        threading.Thread(target=run, daemon=True).start()

    def wait(self, wanted, count, since, bound, what):
        """The first `count` items from index `since` on for which `wanted(item)` holds.

        Raises TimedOut naming `what` after `bound` seconds times PATIENCE, or as soon as the
        journal is closed without them.
        """
        deadline = time.monotonic() + bound * PATIENCE
        found = []
        position = since
        with self._changed:
            while True:
                fresh = self.items(position)
                position = len(self)
                for item in fresh:
                    if wanted(item):
                        found.append(item)
                        if len(found) == count:
                            return found
                left = deadline - time.monotonic()
                if left <= 0 or self._closed:
                    reason = "it ended" if self._closed else f"{bound * PATIENCE:.1f} s passed"
                    raise TimedOut(f"{reason} and only {len(found)} of {count} came: {what}")
                self._changed.wait(left)
