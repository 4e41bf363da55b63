"""What the pages are told: what has happened, and how things stand. One feed serves every page that is open."""
import collections
import itertools
import threading
from typing import NamedTuple


class Entry(NamedTuple):
    version: int    # grows with everything that is told
    kind: str
    number: int     # of the entry itself; one that is told again keeps it
    data: dict


class Feed:
    """Kinds that happen (put) keep their last `keep` entries; of kinds that stand (show) only the last counts."""

    def __init__(self, keep):
        self._keep = keep           # {kind: how many}
        self._changed = threading.Condition()
        self._versions = itertools.count(1)
        self._numbers = itertools.count(1)
        self._happened = {kind: collections.deque(maxlen=count) for kind, count in keep.items()}
        self._standing = {}
        self._open = True

    def put(self, kind, data):
        """The entry's number, for `amend`."""
        with self._changed:
            entry = Entry(next(self._versions), kind, next(self._numbers), data)
            self._happened[kind].append(entry)
            self._changed.notify_all()
            return entry.number

    def amend(self, kind, number, data):
        """Tells an entry again, with other contents. One that is no longer kept stays forgotten."""
        with self._changed:
            kept = self._happened[kind]
            for entry in reversed(kept):
                if entry.number == number:
                    kept.remove(entry)
                    kept.append(Entry(next(self._versions), kind, number, data))
                    self._changed.notify_all()
                    return

    def show(self, kind, data):
        """Nothing is told when it is as it was."""
        with self._changed:
            if kind in self._standing and self._standing[kind].data == data:
                return
            self._standing[kind] = Entry(next(self._versions), kind, 0, data)
            self._changed.notify_all()

    def after(self, version, timeout):
        """What was told after that version, in order; empty when there was nothing for so many seconds."""
        with self._changed:
            found = []

            def news():
                nonlocal found
                found = self._after(version)
                return found or not self._open
            self._changed.wait_for(news, timeout)
            return found

    def _after(self, version):
        found = [entry for entry in self._standing.values() if entry.version > version]
        for kept in self._happened.values():
            for entry in reversed(kept):
                if entry.version <= version:
                    break
                found.append(entry)
        return sorted(found)

    @property
    def is_open(self):
        return self._open

    def close(self):
        with self._changed:
            self._open = False
            self._changed.notify_all()
