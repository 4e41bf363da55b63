"""The other processes of the head unit: who receives from the service, and who speaks to it."""
import os
import selectors
import socket
import threading
import time
from dataclasses import dataclass

import usbrecords

ROOT = "/run/kipc"
RECEIVERS = ("sdcm",) + tuple(name for name in usbrecords.PROCESSES if name not in ("sdcm", "settings", "power"))
# s without a record after which nothing is taken to be under way: a record to SDCM passes two threads more than others.
QUIET = 0.12 if os.environ.get("USBSERVICE", "").endswith(("_asan", "_tsan")) else 0.05
FOREIGN = "/devices/soc/"       # records about devices elsewhere are the machine's own


@dataclass
class Received:
    time: float         # monotonic
    receiver: str
    data: bytes

    @property
    def record(self):
        return usbrecords.decode(self.receiver, self.data)

    def __str__(self):
        return f"[{self.time:12.6f}] {self.receiver:>16} <- {self.record}"


def is_foreign(received):
    """The test hears of the machine's own devices too: they hang elsewhere, and have no port of the unit."""
    record = received.record
    if record.name == "st_storage_pkt":
        return record["port"] == 0
    if record.name == "st_usb_pkt":
        return not record["devpath"].startswith(FOREIGN)
    return False


class Peers:
    """Inboxes of all receivers, read by one thread, and the connections on which we speak."""

    def __init__(self):
        self.received = []
        self.changed = threading.Condition()
        self.selector = selectors.DefaultSelector()
        self.listeners = {}
        self.connections = {}       # of each receiver
        self.senders = {}
        self.stopping = False
        self.wake_read, self.wake_write = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
        self.selector.register(self.wake_read, selectors.EVENT_READ, self.wake)
        self.thread = threading.Thread(target=self.work, name="peers", daemon=True)
        self.thread.start()

    def close(self):
        self.stopping = True
        os.write(self.wake_write, b".")
        self.thread.join(5)
        for name in list(self.listeners):
            self.stop(name)
        self.hang_up()
        self.selector.close()
        os.close(self.wake_read)
        os.close(self.wake_write)

    # --- receivers ---

    def start(self, *names, reads=True):
        """`reads` false: takes connections, but never a record."""
        for name in names:
            folder = f"{ROOT}/{name}"
            os.makedirs(folder, exist_ok=True)
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_CLOEXEC)
            path = f"{folder}/usb"
            if os.path.exists(path):
                os.unlink(path)
            listener.bind(path)
            listener.listen(8)
            with self.changed:
                self.listeners[name] = listener
                self.connections[name] = []
            if reads:
                self.register(listener, lambda listener=listener, name=name: self.accept(listener, name))

    def stop(self, name):
        """The receiver dies: its socket and all that was connected to it."""
        with self.changed:
            listener = self.listeners.pop(name)
            sockets = [listener] + self.connections.pop(name)
            for one in sockets:
                try:
                    self.selector.unregister(one)
                except KeyError:        # one that never reads
                    pass
                one.close()
        os.unlink(f"{ROOT}/{name}/usb")

    def register(self, one, handler):
        with self.changed:
            self.selector.register(one, selectors.EVENT_READ, handler)
        os.write(self.wake_write, b".")

    def wake(self):
        try:
            os.read(self.wake_read, 4096)
        except BlockingIOError:
            pass

    def accept(self, listener, name):
        connection, _ = listener.accept()
        self.connections[name].append(connection)
        self.selector.register(connection, selectors.EVENT_READ,
                               lambda: self.receive(connection, name))

    def receive(self, connection, name):
        try:
            data = connection.recv(1 << 17)
        except ConnectionError:
            data = b""
        if not data:
            self.selector.unregister(connection)
            self.connections[name].remove(connection)
            connection.close()
            return
        self.received.append(Received(time.monotonic(), name, data))
        self.changed.notify_all()

    def work(self):
        while not self.stopping:
            ready = self.selector.select(1)
            with self.changed:
                for key, _ in ready:
                    if self.selector.get_map().get(key.fd) is key:      # not taken away, and perhaps closed, meanwhile
                        key.data()

    def records(self, receiver, since=0):
        """What a receiver got since a mark, without the machine's own."""
        with self.changed:
            return [one.record for one in self.received[since:] if one.receiver == receiver and not is_foreign(one)]

    def mark(self):
        with self.changed:
            return len(self.received)

    def wait(self, receiver, count, since, timeout=10):
        """Waits until so many records came; returns what came, fewer when time is up."""
        deadline = time.monotonic() + timeout
        while True:
            with self.changed:
                records = self.records_locked(receiver, since)
                left = deadline - time.monotonic()
                if len(records) >= count or left <= 0:
                    return records
                self.changed.wait(left)

    def records_locked(self, receiver, since):
        return [one.record for one in self.received[since:] if one.receiver == receiver and not is_foreign(one)]

    def quiet(self, seconds=QUIET, timeout=5):
        """Waits until no record came for a moment."""
        deadline = time.monotonic() + timeout
        with self.changed:
            while time.monotonic() < deadline:
                if not self.changed.wait(seconds):
                    return

    def story(self, since=0):
        with self.changed:
            return "\n".join(str(one) for one in self.received[since:][-300:])

    # --- senders ---

    def connect(self, name, timeout=5):
        """A connection of our own, closed by the caller."""
        path = f"{ROOT}/usb/{name}"
        deadline = time.monotonic() + timeout
        while True:
            one = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_CLOEXEC)
            one.settimeout(5)
            try:
                one.connect(path)
                return one
            except (FileNotFoundError, ConnectionRefusedError, BlockingIOError):     # or too many wait
                one.close()
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.02)
            except OSError:
                one.close()
                raise

    def send(self, name, data):
        """As the process `name`, on a connection that stays. A service that restarted is connected anew."""
        if name in self.senders:
            try:
                self.senders[name].send(data)
                return
            except OSError:
                self.senders.pop(name).close()
        self.senders[name] = self.connect(name)
        self.senders[name].send(data)

    def hang_up(self):
        for one in self.senders.values():
            one.close()
        self.senders.clear()


