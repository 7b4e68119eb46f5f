"""Events as small objects, and the iterator over them."""

import queue
import re
import time

_RESERVED = ("group", "event", "target", "properties")


def _snake(name):
    """"ProcessId" -> "process_id", "RIP" -> "rip"."""
    return re.sub(r"(?<=[a-z0-9])(?=[A-Z])|(?<=[A-Z])(?=[A-Z][a-z])", "_", name).lower()


class Event:
    """One event: its `group` ("target", "console", ...), its `event` name ("PowerState"), the
    handle of its `target` (None for the server's) and its properties, as attributes in
    snake_case (ev.operation, ev.process_id) and in the `properties` dict."""

    def __init__(self, group, event, target, properties):
        self.group = group
        self.event = event
        self.target = target
        self.properties = {_snake(name): value for name, value in properties.items()}
        for name, value in self.properties.items():
            if name not in _RESERVED:
                setattr(self, name, value)

    def __repr__(self):
        fields = " ".join(f"{name}={value!r}" for name, value in self.properties.items())
        where = "server" if self.target is None else f"target {self.target}"
        return f"<Event {self.group}.{self.event} {where} {fields}>".replace("  ", " ")


class EventStream:
    """The events of a subscription as an iterator that ends when `timeout` seconds have passed
    since it was made (None: never) or when it is closed. Use it in a `with` block, or close it,
    to unsubscribe."""

    def __init__(self, api, groups=None, target=None, timeout=None):
        if timeout is not None and timeout < 0:
            raise ValueError("the timeout must not be negative")
        self._queue = queue.SimpleQueue()
        self._deadline = None if timeout is None else time.monotonic() + timeout
        self._subscription = api.subscribe(self._queue.put, groups, target)

    def __iter__(self):
        return self

    def __next__(self):
        try:
            if self._deadline is None:
                return self._queue.get()
            return self._queue.get(timeout=max(0.0, self._deadline - time.monotonic()))
        except queue.Empty:
            self.close()
            raise StopIteration from None

    def close(self):
        self._subscription.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
