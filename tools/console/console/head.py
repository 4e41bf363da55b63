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

from . import devices, requests, status, words
from .forms import WrongInput, parse
from .model import Model

LEVELS = ((32, "calls"), (64, "details"), (128, "what happens"), (160, "refusals"), (192, "failures"))
DEFAULT_LEVEL = 128
KEEP = {"record": 4000, "log": 8000, "phone": 4000}
TOGETHER = 0.2          # seconds within which equal records to several receivers have left as one
RECENT = 8              # records that a further receiver is looked for in
LOOK = 0.1              # seconds between looks at what phones have seen, and at the service's status after news
IDLE_LOOK = 1.0         # at the status, without news
STATUS_LIMIT = 3.0      # after which an answer is no longer expected
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
        self._runs = False              # the service
        self._has_news = False          # since the status was asked for
        self._asked = None              # when, while an answer is awaited
        self._last_asked = 0.0
        self._recent = collections.deque(maxlen=RECENT)     # (entry's number, entry); the unit's thread only
        self._telling = threading.Lock()        # of what items have told of their phones
        self._over = threading.Event()
        self._worker = threading.Thread(target=self._work, name="unit")
        self._watcher = threading.Thread(target=self._watch, name="watch")

    # ---- life ----

    def start(self):
        self._show_all()
        self._worker.start()
        self._watcher.start()

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
            while (job := self._jobs.get()) is not None:
                future, act, arguments = job
                try:
                    future.set_result(act(arguments))
                except Exception as error:  # whatever it is belongs to who asked
                    future.set_exception(error)
        finally:
            self._shut()

    def _boot_or_tell(self):
        try:
            self._boot()
        except (HeadUnitError, OSError) as error:
            self._shut()
            self._show_unit("failed", str(error))

    def _boot(self):
        self._show_unit("booting")
        unit = self._unit_class(listener=self._hear)
        self._unit = unit.__enter__()
        unit.listen_to_tap()
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
        text = request.act(self._running(), values)
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
            self._show_service(None, None)
            self._boot_or_tell()
            self._running()
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
        self._show_plugged()

    def _forget_items(self):
        with self._lock:
            items, self._items = self._items, []
        for item in items:
            shutil.rmtree(item.folder, ignore_errors=True)
        self._rewrites.clear()
        self._show_plugged()

    # ---- what is heard: by the unit's own thread ----

    def _hear(self, verb, rest):
        hear = getattr(self, f"_hear_{verb}", None)     # other lines answer somebody's question
        if not hear:
            return
        try:
            hear(rest)
        except status.NotUnderstood as error:
            self._feed.put("log", words.console_entry(
                f"not understood: {error}; is the unit's image of these sources?"))

    def _hear_tap(self, rest):
        head, data = status.decode_tap(bytes.fromhex(rest))
        record = usbrecords.decode(head["receiver"], data, head["sender"])
        entry = words.record_entry(head, record)
        if self._joins(entry):
            return
        self._recent.append((self._feed.put("record", dict(entry)), entry))
        with self._lock:
            self._has_news = True
            told = head["direction"] == "out" and self._model.record(record)
        if told:
            self._show_model()

    def _joins(self, entry):
        """A packet to several processes leaves at once: it is one entry."""
        for number, known in reversed(self._recent):
            if entry["direction"] == "out" and entry["receivers"][0] not in known["receivers"] and \
                    entry["time"] - known["time"] < TOGETHER and \
                    all(entry[name] == known[name] for name in ("direction", "hex", "outcome", "faults")):
                known["receivers"] = [*known["receivers"], *entry["receivers"]]
                self._feed.amend("record", number, dict(known))
                return True
        return False

    def _hear_log(self, rest):
        stamp, _, text = rest.partition(" ")
        entry = words.log_entry(int(stamp) / 1e9, text)
        self._feed.put("log", entry)
        with self._lock:
            self._has_news = True
            told = self._model.log_line(entry["time"], entry["text"])
        if told:
            self._show_model()

    def _hear_board(self, rest):
        stamp, _, text = rest.partition(" ")
        self._feed.put("log", words.board_entry(int(stamp) / 1e9, text))

    def _hear_status(self, rest):
        with self._lock:
            self._asked = None
            snapshot = status.decode(b"" if rest == "-" else bytes.fromhex(rest))
            if not snapshot or not self._runs:
                return
            self._model.status(snapshot)
        self._show_model()

    def _hear_started(self, rest):
        with self._lock:
            self._runs, self._has_news = True, True
        self._show_service(int(rest), None)

    def _hear_exited(self, rest):
        self._clear()
        self._show_service(None, rest)

    def _hear_over(self, _):
        if self._over.is_set():
            return
        self._clear()
        self._show_unit("gone", "the machine has ended")
        self._show_service(None, "the machine has ended")

    # ---- what is looked at: by a thread of its own ----

    def _watch(self):
        while not self._over.wait(LOOK):
            with self._lock:
                phones = [item for item in self._items if isinstance(item.device, Phone)]
            if any([self._tell_phone(item) for item in phones]):
                self._show_plugged()
            self._ask_status()

    def _ask_status(self):
        unit, now = self._unit, time.monotonic()
        with self._lock:
            if not unit or not self._runs or self._asked is not None and now - self._asked < STATUS_LIMIT:
                return
            if not self._has_news and now - self._last_asked < IDLE_LOOK:
                return
            self._asked = self._last_asked = now
            self._has_news = False
        try:
            unit.ask_status()
        except HeadUnitError:
            pass    # the machine is gone: _hear_over tells

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
            self._runs, self._asked = False, None
        self._show_model()

    def _show_all(self):
        self._show_unit("booting")
        self._show_service(None, None)
        self._show_model()
        self._show_plugged()

    def _show_unit(self, state, text=""):
        self._feed.show("unit", {"state": state, "text": text})

    def _show_service(self, pid, end):
        self._feed.show("service", {"pid": pid, "end": end, "level": self._level})

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


def _first_part(error):
    """Without what was heard last: the page shows that anyway."""
    return str(error).partition("\n--- last records ---")[0]
