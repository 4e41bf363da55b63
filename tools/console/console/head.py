"""The console's side of the unit: boots it, plugs and pulls, asks, and tells the feed what is heard.

Everything that is done to the unit is done by one thread, one thing after another: the kernel counts the thread that
booted the machine as its parent, and ends the machine with it.
"""
import collections
import concurrent.futures
import itertools
import pathlib
import queue
import shutil
import tempfile
import threading
import time

import usbrecords
from headunit import CardReader, HeadUnit, HeadUnitError, Hub, Phone, sticks

from . import devices, requests, words
from .forms import WrongInput, parse
from .model import Model

LEVELS = ((32, "calls"), (64, "details"), (128, "what happens"), (160, "refusals"), (192, "failures"))
DEFAULT_LEVEL = 128
KEEP = {"record": 4000, "log": 8000, "phone": 4000}
TOGETHER = 0.2          # seconds within which equal records to several receivers have left as one
RECENT = 8              # records that a further receiver is looked for in
PHONE_LOOK = 0.1        # seconds between looks at what phones have seen
MEDIA_POLL = 500        # milliseconds after which a changed card is noticed
UNIT_PORTS = ("1.1", "1.2")
PATIENCE = 180          # seconds that a page waits for what it asked
MODEM = "test -d /sys/module/cdc_acm || insmod /usr/lib/modules/$(uname -r)/cdc_acm.ko"


class Failed(Exception):
    """Something that a page asked was tried, and failed."""


class Item:
    """Something that is plugged in."""

    def __init__(self, number, kind, device, folder):
        self.number = number
        self.kind = kind
        self.device = device
        self.folder = folder
        self.told = 0           # events of a phone that were passed on
        self.shows = ""         # what a phone shows itself as; empty: it is not on the bus

    def describe(self):
        about = {"number": self.number, "place": self.device.port, "kind": self.kind.key, "label": self.kind.label,
                 "hub": isinstance(self.device, Hub), "phone": isinstance(self.device, Phone)}
        if about["phone"]:
            about.update(shows=self.shows, modes=[value for field in self.kind.fields if field.name == "starts"
                                                  for value, _ in field.choices])
        if isinstance(self.device, CardReader):
            about["card"] = self.device.image is not None
        return about


class Head:
    """unit_class: what makes the unit, HeadUnit unless a test has another."""

    def __init__(self, feed, unit_class=HeadUnit):
        self._feed = feed
        self._unit_class = unit_class
        self._kinds = devices.catalogue()
        self._requests = requests.catalogue()
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="console-"))
        self._numbers = itertools.count(1)
        self._jobs = queue.Queue()
        self._unit = None
        self._rewrites = {}             # place: what the board's module shows there
        self._level = DEFAULT_LEVEL
        self._lock = threading.Lock()   # of what follows
        self._model = Model()
        self._items = []
        self._sending = collections.deque()     # (sender, bytes) on their way to the service
        self._recent = collections.deque(maxlen=RECENT)     # (entry's number, entry, bytes)
        self._telling = threading.Lock()        # of what items have told of their phones
        self._over = threading.Event()
        self._booted = threading.Event()
        self._worker = threading.Thread(target=self._work, name="unit")
        self._watcher = threading.Thread(target=self._watch, name="phones")

    # ---- life ----

    def start(self):
        self._show_all()
        self._worker.start()
        self._watcher.start()

    def wait_booted(self, timeout=None):
        """Until the unit has booted, or could not."""
        return self._booted.wait(timeout)

    def close(self):
        """Ends the unit and takes away what was made for it."""
        self._over.set()
        self._jobs.put(None)
        if self._worker.is_alive():
            self._worker.join()
            self._watcher.join()
        shutil.rmtree(self._folder, ignore_errors=True)

    def _work(self):
        try:
            self._boot_or_tell()
            self._booted.set()
            while (job := self._jobs.get()) is not None:
                future, act, arguments = job
                try:
                    future.set_result(act(arguments))
                except BaseException as error:  # whatever it is belongs to who asked
                    future.set_exception(error)
        finally:
            self._booted.set()
            self._shut()

    def _boot_or_tell(self):
        try:
            self._boot()
        except HeadUnitError as error:
            self._show_unit("failed", str(error))

    def _boot(self):
        self._show_unit("booting")
        unit = self._unit_class(listener=self._hear)
        self._unit = unit.__enter__()
        self._prepare()
        self._show_unit("running", f"{unit.sh('uname -srm')}, booted in {unit.boot_seconds:.1f} s")
        self._start_service()

    def _prepare(self):
        """What a unit has and a stock kernel has not, and what a person in front of it expects."""
        self._unit.disk_partno(True)
        self._unit.poll_media(MEDIA_POLL)
        self._unit.run(MODEM)

    def _shut(self):
        unit, self._unit = self._unit, None
        if unit:
            unit.close()
        self._forget_items()

    # ---- what pages ask ----

    ACTIONS = ("plug", "pull", "phone", "card", "request", "service", "unit")

    def do(self, action, arguments):
        """Does it and gives what it gives. Raises WrongInput or Failed, with a text for who asked."""
        if action not in self.ACTIONS:
            raise WrongInput(f"there is no action {action!r}")
        if not isinstance(arguments, dict):
            raise WrongInput("the arguments are missing")
        future = concurrent.futures.Future()
        self._jobs.put((future, getattr(self, f"_do_{action}"), arguments))
        try:
            return future.result(PATIENCE)
        except concurrent.futures.TimeoutError:
            raise Failed(f"not done within {PATIENCE} s") from None
        except (HeadUnitError, sticks.ToolFailed) as error:
            raise Failed(_first_part(error)) from error

    def _do_plug(self, arguments):
        unit = self._running()
        kind = self._kinds.get(arguments.get("kind"))
        if not kind:
            raise WrongInput(f"there is no device {arguments.get('kind')!r}")
        place = arguments.get("place")
        if place not in self._free_places():
            raise WrongInput(f"nothing can be plugged into {place!r} now")
        values = parse(kind.fields, arguments.get("fields", {}))
        self._rewrite(place, values.pop("ids", "").lower())
        number = next(self._numbers)
        folder = self._folder / str(number)
        folder.mkdir()
        try:
            device = kind.make(values, folder)
            item = Item(number, kind, device, folder)
            unit.plug(place, device)
        except BaseException:
            shutil.rmtree(folder, ignore_errors=True)
            raise
        with self._lock:
            self._items.append(item)
        self._show_plugged()
        return {"number": number}

    def _do_pull(self, arguments):
        item = self._item(arguments)
        try:
            self._running().unplug(item.device)
        finally:
            self._forget_gone()
            self._show_plugged()

    def _do_phone(self, arguments):
        item = self._item(arguments)
        if not isinstance(item.device, Phone):
            raise WrongInput(f"{item.kind.label} is no phone")
        mode = arguments.get("mode")
        if mode is None:
            return item.device.leave()
        if mode not in item.describe()["modes"]:
            raise WrongInput(f"{item.kind.label} has no mode {mode!r}")
        return item.device.come(mode)

    def _do_card(self, arguments):
        item = self._item(arguments)
        if not isinstance(item.device, CardReader):
            raise WrongInput(f"{item.kind.label} is no card reader")
        if arguments.get("inside"):
            item.device.insert(devices.card_image(item.folder))
        else:
            item.device.eject()
        self._show_plugged()

    def _do_request(self, arguments):
        request = self._requests.get(arguments.get("request"))
        if not request:
            raise WrongInput(f"there is no request {arguments.get('request')!r}")
        values = parse(request.fields, arguments.get("fields", {}))
        text = request.act(Peer(self._running(), self), values)
        return {"text": text} if text else {}

    def _do_service(self, arguments):
        what, unit = arguments.get("what"), self._running()
        level = arguments.get("level", self._level)
        if level not in dict(LEVELS):
            raise WrongInput(f"there is no log level {level!r}")
        if what not in ("start", "stop", "restart"):
            raise WrongInput(f"the service cannot be told {what!r}")
        self._level = level
        if what != "start":
            unit.stop_service()
        if what != "stop":
            self._start_service()

    def _do_unit(self, arguments):
        what = arguments.get("what")
        if what == "restart":
            self._shut()
            self._clear()
            self._boot()
        elif what == "reset":
            unit = self._running()
            unit.reset()
            self._rewrites.clear()
            self._forget_gone()
            self._clear()
            self._prepare()
            self._start_service()
        else:
            raise WrongInput(f"the unit cannot be told {what!r}")

    def _running(self):
        if not self._unit:
            raise Failed("the unit does not run: restart it")
        return self._unit

    def _start_service(self):
        self._unit.start_service({"KA_LOG_LEVEL": str(self._level)})

    def _rewrite(self, place, ids):
        """The ids that what is plugged into that place shows; "" for its own."""
        if ids:
            self._rewrites[place] = ids
            self._unit.rewrite(place, ids)
        elif self._rewrites.pop(place, None):
            self._unit.forget_rewrites()
            for other, shown in self._rewrites.items():
                self._unit.rewrite(other, shown)

    # ---- what is plugged in ----

    def _item(self, arguments):
        with self._lock:
            for item in self._items:
                if item.number == arguments.get("number"):
                    return item
        raise WrongInput("that is no longer plugged in")

    def _free_places(self):
        with self._lock:
            taken = {item.device.port: item for item in self._items}
        free, looked_at = [], list(UNIT_PORTS)
        while looked_at:
            place = looked_at.pop(0)
            if place not in taken:
                free.append(place)
            elif isinstance(taken[place].device, Hub):
                looked_at += [f"{place}.{number}" for number in range(1, devices.HUB_PORTS + 1)]
        return free

    def _forget_gone(self):
        """With a hub, what hung on it is gone too."""
        with self._lock:
            gone = [item for item in self._items if item.device.port is None]
            self._items = [item for item in self._items if item.device.port is not None]
        for item in gone:
            self._tell_phone(item)
            shutil.rmtree(item.folder, ignore_errors=True)

    def _forget_items(self):
        with self._lock:
            items, self._items = self._items, []
        for item in items:
            shutil.rmtree(item.folder, ignore_errors=True)
        self._rewrites.clear()
        self._show_plugged()

    # ---- what is heard: by the unit's own thread ----

    def _hear(self, verb, rest):
        if verb == "rec":
            stamp, receiver, text = rest.split(" ")
            self._hear_record(int(stamp) / 1e9, receiver, b"" if text == "-" else bytes.fromhex(text))
        elif verb == "log":
            stamp, _, text = rest.partition(" ")
            self._hear_log(int(stamp) / 1e9, text)
        elif verb == "board":
            stamp, _, text = rest.partition(" ")
            self._feed.put("log", words.board_entry(int(stamp) / 1e9, text))
        elif verb == "sent":
            self._hear_sent()
        elif verb == "started":
            self._show_service({"pid": int(rest), "end": None})
        elif verb == "exited":
            self._clear()
            self._show_service({"pid": None, "end": rest})
        elif verb == "over" and not self._over.is_set():
            self._show_unit("gone", "the machine has ended")
            self._clear()
            self._show_service({"pid": None, "end": "the machine has ended"})

    def _hear_record(self, time_, receiver, data):
        for number, entry, known in reversed(self._recent):
            # A packet to several processes leaves at once.
            if known == data and time_ - entry["time"] < TOGETHER and receiver not in entry["receivers"]:
                entry["receivers"] = [*entry["receivers"], receiver]
                self._feed.amend("record", number, dict(entry))
                return
        entry = words.entry(time_, "out", "usb", [receiver], data)
        self._recent.append((self._feed.put("record", dict(entry)), entry, data))
        with self._lock:
            news = self._model.record(usbrecords.decode(receiver, data))
        if news:
            self._show_model()

    def _hear_log(self, time_, text):
        entry = words.log_entry(time_, text)
        self._feed.put("log", entry)
        with self._lock:
            news = self._model.log_line(entry["time"], entry["text"])
        if news:
            self._show_model()

    def _hear_sent(self):
        with self._lock:
            if not self._sending:
                return
            sender, data = self._sending.popleft()
            offset = self._unit.clock_offset if self._unit else 0.0
        self._feed.put("record", words.entry(time.monotonic() + offset, "in", sender, ["usb"], data))

    def sending(self, sender, data):
        """Before a record is given to the unit; gives what takes it back."""
        with self._lock:
            self._sending.append((sender, data))

    def not_sent(self):
        with self._lock:
            self._sending.clear()

    # ---- phones ----

    def _watch(self):
        while not self._over.wait(PHONE_LOOK):
            with self._lock:
                phones = [item for item in self._items if isinstance(item.device, Phone)]
            if any([self._tell_phone(item) for item in phones]):
                self._show_plugged()

    def _tell_phone(self, item):
        """Passes on what the phone has seen since; true when it shows itself in another way."""
        if not isinstance(item.device, Phone):
            return False
        with self._telling:
            before = item.shows
            for event in item.device.events(item.told):
                item.told += 1
                verb, _, rest = event.what.partition(" ")
                if verb in ("came", "left", "cut"):
                    item.shows = rest if verb == "came" else ""
                said = words.phone_event(event.what)
                if said:
                    self._feed.put("phone", {"time": event.time, "item": item.number, "label": item.kind.label, **said})
            return item.shows != before

    # ---- how things stand ----

    def _clear(self):
        with self._lock:
            self._model.clear()
            self._sending.clear()
        self._show_model()

    def _show_all(self):
        self._show_unit("booting")
        self._show_service({"pid": None, "end": None})
        self._show_model()
        self._show_plugged()

    def _show_unit(self, state, text=""):
        self._feed.show("unit", {"state": state, "text": text})

    def _show_service(self, data):
        self._feed.show("service", {**data, "level": self._level})

    def _show_model(self):
        with self._lock:
            told = self._model.describe()
        for kind, data in told.items():
            self._feed.show(kind, data)

    def _show_plugged(self):
        with self._lock:
            items = [item.describe() for item in self._items if item.device.port]
        self._feed.show("plugged", {"items": sorted(items, key=lambda one: one["place"]),
                                    "free": self._free_places()})

    def describe(self):
        """What does not change: for the page when it is loaded."""
        return {"devices": [kind.describe() for kind in self._kinds.values()],
                "requests": [request.describe() for request in self._requests.values()],
                "levels": [{"value": value, "label": f"{value} {label}"} for value, label in LEVELS]}


class Peer:
    """The unit, as a request sees it: what is sent to the service is told to the feed."""

    def __init__(self, unit, head):
        self._unit = unit
        self._head = head

    def send(self, sender, data):
        self._head.sending(sender, data)
        try:
            self._unit.send(sender, data)
        except HeadUnitError:
            self._head.not_sent()
            raise

    def __getattr__(self, name):
        return getattr(self._unit, name)


def _first_part(error):
    """Without what was heard last: the page shows that anyway."""
    return str(error).partition("\n--- last records ---")[0]
