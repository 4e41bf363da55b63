"""The virtual head unit: QEMU, the guest's agent, and what has been heard from them."""
import ctypes
import itertools
import os
import pathlib
import shlex
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
from typing import NamedTuple

from .devices import Hub
from .qmp import Qmp, QmpError

ROOT = pathlib.Path(__file__).resolve().parents[3]
CONTROLLER = "/sys/devices/soc/7600000.hsusb/7600000.dwc3/xhci-hcd.0.auto"
BOARD = "/sys/module/headunit_board/parameters"


class HeadUnitError(Exception):
    """Something that was waited for did not come, or the machine is gone. The text shows what was heard last."""


class CommandFailed(HeadUnitError):
    """A command in the guest ended with another status than 0."""


class Record(NamedTuple):
    time: float       # seconds on the guest's monotonic clock
    receiver: str     # "media", "diag", ... or 16 hexadecimal digits
    bytes: bytes


class LogLine(NamedTuple):
    time: float
    text: str


class Output(NamedTuple):
    status: int
    text: str


_libc = ctypes.CDLL(None)


def _die_with_parent():
    """QEMU must not outlive a test that was killed. The kernel counts the thread that booted as the parent."""
    _libc.prctl(1, signal.SIGKILL)   # PR_SET_PDEATHSIG


class HeadUnit:
    """Boots on entering and is gone on leaving. Not for several threads at once.

    image: folder with vmlinuz and initramfs.cpio (tools/headunit/make-image.py)
    board_id: text of the board's identity; None: the board has none
    module: further parameters of the board's module, e.g. {"disk_partno": 1}
    instruction_clock: the guest's clock counts its instructions, one a nanosecond, whatever the host does meanwhile
    listener: is given each line of the agent as (verb, rest), and ("over", "") when the guest is gone, by a thread of
        the unit's own; it must not ask the unit for anything
    """

    def __init__(self, image=None, board_id="X53", cpus=1, module=None, boot_timeout=60, listener=None,
                 instruction_clock=False):
        self.image = pathlib.Path(image or os.environ.get("HEADUNIT_IMAGE") or ROOT / "build/headunit")
        self.boot_timeout = boot_timeout
        self.boot_seconds = None   # from QEMU's start to the agent's word
        self.clock_offset = 0.0    # the guest's clock is ahead of time.monotonic() by so much, to some ms
        self.vehicle_hub = Hub(ports=2, serial="VEHICLE")   # is plugged while booting; ids 0424:4504
        self.qmp = None
        self._cpus = cpus
        self._clock_options = ["-icount", "shift=0"] if instruction_clock else []
        self._listener = listener or (lambda verb, rest: None)
        self._module = {"board_id": "" if board_id is None else board_id, **(module or {})}
        self._folder = None
        self._qemu = None
        self._agent = None
        self._reader = None
        self._changed = threading.Condition()
        self._numbers = itertools.count(1)
        self._plugged = []
        # Filled by the reader, under _changed.
        self._ready = False
        self._over = False
        self._records = []
        self._logs = []
        self._outputs = {}
        self._errors = []
        self._board = []           # lines of the board's module: (time, text)
        self._dark = set()         # ports of the vehicle's hub without power: {"1.2"}
        self._clock = None         # answer to the question for the clock
        self._tapping = False      # whether the agent listens to the tap
        self._status = None        # answer to the question for the status
        self._telling = threading.Lock()   # of the agent's channel
        self._sent = 0
        self._starts = []          # process ids of the services started
        self._service_end = None   # how the last one ended, None while it runs

    # ---- life ----

    def __enter__(self):
        try:
            self._boot()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_):
        self.close()

    def _boot(self):
        for name in ("vmlinuz", "initramfs.cpio"):
            if not (self.image / name).exists():
                raise HeadUnitError(f"no {self.image / name}: run tools/fetch-guest.sh, the cross build and "
                                    "tools/headunit/make-image.py")
        begin = time.monotonic()
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="headunit-"))
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        listener.bind(str(self._folder / "agent"))
        listener.listen(1)
        listener.settimeout(self.boot_timeout)
        with open(self._folder / "qemu.log", "wb") as log:
            self._qemu = subprocess.Popen(self._command(), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                          start_new_session=True, preexec_fn=_die_with_parent)
        with listener:
            try:
                self._qemu.wait(0.1)
            except subprocess.TimeoutExpired:
                pass   # as it should be: it runs
            else:
                raise HeadUnitError("QEMU does not start" + self._heard())
            try:
                self._agent, _ = listener.accept()
            except OSError as error:
                raise HeadUnitError(f"QEMU does not open the agent's channel: {error}" + self._heard()) from error
        self._reader = threading.Thread(target=self._read, name="agent", daemon=True)
        self._reader.start()
        try:
            self.qmp = Qmp(self._folder / "qmp", self.boot_timeout)
        except QmpError as error:
            raise HeadUnitError(f"{error}" + self._heard()) from error
        self._until(lambda: self._ready, self.boot_timeout, "the guest's agent")
        self.boot_seconds = time.monotonic() - begin
        self.vehicle_hub.port = "1"
        self._plugged.append(self.vehicle_hub)
        self.wait_path(f"{CONTROLLER}/usb1/1-1/1-1:1.0")
        self.clock_offset = self._ask_clock_offset()

    def _ask_clock_offset(self):
        """The best of some answers is the one that took least time."""
        answers = []
        for _ in range(5):
            begin = time.monotonic()
            with self._changed:
                self._clock = None
            self._tell("clock")
            guest = self._until(lambda: self._clock, 20, "the guest's clock")
            end = time.monotonic()
            answers.append((end - begin, guest - (begin + end) / 2))
        return min(answers)[1]

    def _command(self):
        board = " ".join(f"headunit_board.{name}={value}" for name, value in self._module.items())
        hub = self.vehicle_hub
        return ["qemu-system-aarch64", "-nodefaults", "-no-reboot", "-no-user-config", "-display", "none",
                "-machine", "virt,gic-version=2", "-cpu", "cortex-a57", "-smp", str(self._cpus), "-m", "768",
                "-accel", "tcg", *self._clock_options,
                "-kernel", str(self.image / "vmlinuz"), "-initrd", str(self.image / "initramfs.cpio"),
                # alarmtimer would take the platform number 0, which belongs to the USB controller.
                "-append", f"console=ttyAMA0 quiet panic=-1 initcall_blacklist=alarmtimer_init {board}",
                "-serial", f"file:{self._folder / 'console'}",
                "-qmp", f"unix:{self._folder / 'qmp'},server=on,wait=off",
                "-chardev", f"socket,id=agent,path={self._folder / 'agent'}",
                "-audiodev", "none,id=silence",
                "-device", "virtio-serial-pci", "-device", "virtserialport,chardev=agent,name=headunit.agent",
                "-device", "qemu-xhci,id=x",
                "-device", f"usb-hub,id={hub.id},bus=x.0,port=1,ports=2,port-power=on,serial=VEHICLE"]

    def close(self):
        """Ends the machine at once. May be called twice."""
        if self._qemu and self._qemu.poll() is None:
            self._qemu.kill()
        if self._qemu:
            self._qemu.wait(20)
        if self.qmp:
            self.qmp.close()
            self.qmp = None
        if self._agent:
            self._agent.close()
            self._agent = None
        if self._reader:
            self._reader.join(5)
            self._reader = None
        for device in self._plugged:
            device.end()
        self._plugged.clear()
        if self._folder:
            shutil.rmtree(self._folder, ignore_errors=True)
            self._folder = None

    # ---- the agent's lines ----

    def _read(self):
        try:
            with self._agent.makefile("rb") as lines:
                for line in lines:
                    verb, _, rest = line.rstrip(b"\n").decode(errors="backslashreplace").partition(" ")
                    with self._changed:
                        self._take(verb, rest)
                        self._changed.notify_all()
                    self._listener(verb, rest)
        except (OSError, ValueError):
            pass   # the channel is gone: told below
        with self._changed:
            self._over = True
            self._changed.notify_all()
        self._listener("over", "")

    def _take(self, verb, rest):
        if verb == "rec":
            stamp, receiver, text = rest.split(" ")
            self._records.append(Record(int(stamp) / 1e9, receiver, _from_hex(text)))
        elif verb == "log":
            stamp, _, text = rest.partition(" ")
            self._logs.append(LogLine(int(stamp) / 1e9, text))
        elif verb == "out":
            number, status, text = rest.split(" ")
            self._outputs[number] = Output(int(status), _from_hex(text).decode(errors="backslashreplace"))
        elif verb == "sent":
            self._sent += 1
        elif verb == "started":
            self._starts.append(int(rest))
            self._service_end = None
        elif verb == "exited":
            self._service_end = rest
        elif verb == "ready":
            self._ready = True
        elif verb == "clock":
            self._clock = int(rest) / 1e9
        elif verb == "board":
            stamp, _, text = rest.partition(" ")
            self._board.append((int(stamp) / 1e9, text))
            self._power(text)
        elif verb == "tapping":
            self._tapping = True
        elif verb == "status":
            self._status = _from_hex(rest)
        elif verb == "tap":
            pass   # for the listener only
        elif verb == "lost":
            self._errors.append(f"{rest} lines were lost on the way from the guest")
        else:
            self._errors.append(rest if verb == "error" else f"{verb} {rest}")

    def _power(self, text):
        """Devices that are connected by a program of ours do not see their port lose its power: they are told."""
        words = text.split(" ")
        if len(words) != 3 or words[0] != "port" or words[2] not in ("off", "on"):
            return
        port, on = f"1.{words[1]}", words[2] == "on"
        (self._dark.discard if on else self._dark.add)(port)
        for device in self._plugged:
            if f"{device.port}.".startswith(port + "."):
                try:
                    device.power(on)
                except HeadUnitError as error:
                    self._errors.append(str(error))

    def _tell(self, line):
        try:
            with self._telling:
                self._agent.sendall(line.encode() + b"\n")
        except OSError as error:
            raise HeadUnitError(f"the guest's channel is gone: {error}" + self._heard()) from error

    def _until(self, check, timeout, what, of_service=False):
        """What check gives, as soon as it is true. An error that the agent reports ends the waiting, and so does the
        service's end when the awaited thing can only come from it."""
        result = None

        def settled():
            nonlocal result
            result = check()
            return result or self._over or self._errors or (of_service and self._service_end)
        with self._changed:
            self._changed.wait_for(settled, timeout)
            if result:
                return result
            errors, self._errors = self._errors, []
            if errors:
                reason = f"{what}: {'; '.join(errors)}"
            elif self._over:
                reason = f"the guest is gone while waiting for {what}"
            elif of_service and self._service_end:
                reason = f"the service has ended ({self._service_end}) while waiting for {what}"
            else:
                reason = f"not within {timeout} s: {what}"
        raise HeadUnitError(reason + self._heard())

    def _heard(self):
        """The end of everything that was heard, for an exception's text."""
        with self._changed:
            records, logs = self._records[-12:], self._logs[-40:]
        parts = ["\n--- last records ---"] + [f"{one.time:10.3f} {one.receiver} {one.bytes.hex(' ')[:300]}"
                                               for one in records]
        parts += ["--- last log lines ---"] + [f"{one.time:10.3f} {one.text}" for one in logs]
        for name in ("console", "qemu.log"):
            path = self._folder and self._folder / name
            if path and path.exists():
                lines = path.read_text(errors="backslashreplace").splitlines()[-20:]
                parts += [f"--- {name} ---"] + lines
        return "\n".join(parts)

    # ---- commands in the guest ----

    def run(self, command, timeout=30, check=True):
        """Runs a shell command in the guest: Output(status, text), text being stdout and stderr."""
        if "\n" in command:
            command = f"eval {_shell_text(command)}"
        number = f"c{next(self._numbers)}"
        self._tell(f"run {number} {command}")
        try:
            output = self._until(lambda: self._outputs.get(number), timeout, f"command: {command}")
        except HeadUnitError:
            if not self._over:
                self._tell(f"kill {number}")
            raise
        with self._changed:
            del self._outputs[number]
        if check and output.status != 0:
            raise CommandFailed(f"{command}: status {output.status}\n{output.text}" + self._heard())
        return output

    def sh(self, command, timeout=30):
        """The text that the command prints, without the last newline."""
        return self.run(command, timeout).text.rstrip("\n")

    def exists(self, path):
        return self.run(f"test -e {shlex.quote(path)}", check=False).status == 0

    def wait_path(self, path, present=True, timeout=20):
        """Until a file of the guest is there, or no longer there."""
        sign = "" if present else "!"
        result = self.run(f"i=0; until [ {sign} -e {shlex.quote(path)} ]; do i=$((i+1)); [ $i -lt {timeout * 20} ] "
                          "|| exit 1; usleep 50000; done", timeout + 10, check=False)
        if result.status:
            state = "not there" if present else "still there"
            raise HeadUnitError(f"{state} after {timeout} s: {path}" + self._heard())

    def wait_no(self, patterns, timeout=20):
        """Until no file of the guest matches the shell patterns."""
        self.run(f"i=0; while ls -d {patterns} 2>/dev/null | grep -q . ; do i=$((i+1)); [ $i -lt {timeout * 20} ] || "
                 f"{{ echo still there:; ls -d {patterns} 2>/dev/null; exit 1; }}; usleep 50000; done", timeout + 10)

    def dmesg(self):
        return self.sh("dmesg")

    def mounts(self):
        """Lines of /proc/mounts whose mount point is below /tmp."""
        return [line for line in self.sh("cat /proc/mounts").splitlines() if line.split()[1].startswith("/tmp/")]

    # ---- the service ----

    def start_service(self, env=None, timeout=20):
        """Its process id. env: e.g. {"KA_LOG_LEVEL": "32"}."""
        with self._changed:
            before = len(self._starts)
        self._tell(" ".join(["start"] + [f"{name}={value}" for name, value in (env or {}).items()]))
        return self._until(lambda: self._starts[before:], timeout, "the service's start")[0]

    def stop_service(self, sig=signal.SIGTERM, timeout=10):
        """How it ended: "code 0" or "signal 15"; None when it was never started. One that does not end is killed."""
        if self.service_pid is None:
            return self._service_end
        self._tell(f"stop {int(sig)}")
        try:
            return self._until(lambda: self._service_end, timeout, "the service's end")
        except HeadUnitError:
            self._tell(f"stop {int(signal.SIGKILL)}")
            self._until(lambda: self._service_end, timeout, "the service's end after SIGKILL")
            raise

    def wait_service_end(self, timeout=20):
        return self._until(lambda: self._service_end, timeout, "the service's end")

    @property
    def service_pid(self):
        """None when it does not run."""
        with self._changed:
            return self._starts[-1] if self._starts and self._service_end is None else None

    def send(self, sender, data, timeout=20):
        """Puts a record into the service's inbox, as that sender. Raises when the service does not take it."""
        with self._changed:
            before = self._sent
        self._tell(f"send {sender} {data.hex() or '-'}")
        self._until(lambda: self._sent > before, timeout, f"delivery of a record as {sender}")

    def status(self, timeout=20):
        """What the service's status socket gives: its datagrams, joined (platform/status.h). Empty without service."""
        with self._changed:
            self._status = None
        self.ask_status()
        self._until(lambda: self._status is not None, timeout, "the service's status")
        return self._status

    def ask_status(self):
        """The same without waiting, by any thread: the listener gets ("status", hex)."""
        self._tell("status")

    def listen_to_tap(self, timeout=20):
        """From now on the listener gets ("tap", hex) for each record in and out (platform/tap.h)."""
        self._tell("tap")
        self._until(lambda: self._tapping, timeout, "the tap")

    def now(self):
        """The guest's clock, the one of records and log lines."""
        return float(self.sh("cut -d' ' -f1 /proc/uptime"))

    # ---- what was heard ----

    def mark(self):
        """A place in the stream of records and log lines, for the parameter since."""
        with self._changed:
            return len(self._records), len(self._logs)

    def records(self, receiver=None, since=(0, 0)):
        """All records in order of arrival, or those of one receiver."""
        with self._changed:
            return [one for one in self._records[since[0]:] if receiver in (None, one.receiver)]

    def wait_record(self, receiver, predicate=lambda record: True, timeout=20, since=(0, 0), what="a record"):
        """The first record of that receiver (None: of any) for which the predicate is true."""
        return self._until(lambda: _first(one for one in self._records[since[0]:]
                                          if receiver in (None, one.receiver) and predicate(one)),
                           timeout, f"{what} for {receiver or 'anybody'}", of_service=True)

    def logs(self, since=(0, 0)):
        with self._changed:
            return self._logs[since[1]:]

    def wait_log(self, wanted, timeout=20, since=(0, 0)):
        """The first log line that contains the text, or for which the function is true."""
        matches = wanted if callable(wanted) else lambda text: wanted in text
        return self._until(lambda: _first(one for one in self._logs[since[1]:] if matches(one.text)), timeout,
                           f"log line {wanted!r}", of_service=True)

    def settle(self, quiet=1.0, timeout=30):
        """Until nothing has been heard for so many seconds."""
        deadline = time.monotonic() + timeout
        last = self.mark()
        with self._changed:
            while self._changed.wait(quiet):
                now = len(self._records), len(self._logs)
                if self._over:
                    raise HeadUnitError("the guest is gone" + self._heard())
                if time.monotonic() > deadline:
                    raise HeadUnitError(f"it is not quiet after {timeout} s, {now} after {last}" + self._heard())

    def settle_records(self, quiet=1.0, timeout=30):
        """The same for records alone, while the log goes on."""
        deadline = time.monotonic() + timeout
        with self._changed:
            count = len(self._records)
            while self._changed.wait_for(lambda: self._over or len(self._records) != count, quiet):
                count = len(self._records)
                if self._over:
                    raise HeadUnitError("the guest is gone" + self._heard())
                if time.monotonic() > deadline:
                    raise HeadUnitError(f"records still come after {timeout} s" + self._heard())

    # ---- plugging ----

    def plug(self, port, device):
        """Plugs the device into a port of the vehicle's hub, "1.1" or "1.2", or behind a Hub there: "1.2.1"."""
        with self._changed:
            if device is self.vehicle_hub:
                self._dark.clear()   # its ports come up with power
            device.meets(self, self._has_power(port))
        try:
            device.attach(self.qmp, "x.0", port)
        except QmpError as error:
            raise HeadUnitError(f"{device} at {port}: {error}" + self._heard()) from error
        with self._changed:
            self._plugged.append(device)
            device.power(self._has_power(port))   # it may have changed meanwhile
        return device

    def _has_power(self, port):
        return ".".join(port.split(".")[:2]) not in self._dark

    def unplug(self, device):
        """Pulls the device, and with a hub what hangs on it."""
        try:
            below = [one for one in self._plugged if one.port.startswith(device.port + ".")]
            device.detach(self.qmp)
            for one in below:
                one.gone(self.qmp)
        except QmpError as error:
            raise HeadUnitError(f"pulling {device}: {error}" + self._heard()) from error
        with self._changed:
            for one in [device, *below]:
                self._plugged.remove(one)

    def usb_path(self, port):
        """sysfs folder of what is plugged there: usb_path("1.2.1") ends in usb1/1-1/1-1.2/1-1.2.1."""
        digits = port.split(".")
        return CONTROLLER + "/usb1" + "".join(f"/1-{'.'.join(digits[:count])}" for count in range(1, len(digits) + 1))

    # ---- the board ----

    def board(self, parameter, value=None):
        """Sets a parameter of the board's module, or gives its value: temperature, overcurrent, disk_partno, ..."""
        if value is None:
            return self.sh(f"cat {BOARD}/{parameter}")
        self.run(f"echo {shlex.quote(str(value))} > {BOARD}/{parameter}")
        return None

    def rewrite(self, port, ids, device_class=None, interface=None, serial=None):
        """What is plugged into that port from now on shows other ids: rewrite("1.1", "05ac:1300").

        device_class "ff", interface "08/06/50" (also shorter), serial "604-X" ("-": none).
        """
        rule = f"1-{port}={ids}"
        rule += f",class={device_class}" if device_class else ""
        rule += f",iface={interface}" if interface else ""
        rule += f",serial={serial}" if serial else ""
        self.board("rewrite", rule)

    def forget_rewrites(self):
        self.board("rewrite", "-")

    def board_lines(self, since=0.0):
        """What the board's module has said since that time: (time, "ka_hub_control <- 3"), (time, "port 2 off"), ..."""
        with self._changed:
            return [line for line in self._board if line[0] >= since]

    def wait_board(self, text, timeout=20, since=0.0):
        """The first such line of the board's module."""
        return self._until(lambda: _first(one for one in self._board if one[0] >= since and one[1] == text), timeout,
                           f"the board's line {text!r}")

    def hub_control(self, number, what):
        """As the service does it. what: 3 cuts the power of the hub's port, 4 restores it; 1 and 2 change its role."""
        self.run(f"echo {number} > {CONTROLLER}/port_sel && echo {what} > {CONTROLLER}/ka_hub_control")

    def restore_power(self):
        """Of the hub and of all its ports."""
        self.run("echo 0 > /sys/class/gpio/gpio70/value")
        for port in sorted(self._dark):
            self.hub_control(int(port.split(".")[1]), 4)
        with self._changed:
            if not self._changed.wait_for(lambda: not self._dark, 20):
                raise HeadUnitError(f"no power at {self._dark}" + self._heard())

    def overcurrent(self, *ports, clears=None):
        """The sensors of these ports read an over-current from now on, the others none. Nobody is told.

        clears: {1: 3} ends it on port 1 with the third write to its attribute. The others stay.
        """
        clears = clears or {}
        self.board("overcurrent_clears", f"{clears.get(1, 0)},{clears.get(2, 0)}")
        self.board("overcurrent", sum(1 << port for port in ports))

    def report_overcurrent(self, port, times=1):
        """The host driver's event of the vehicle's hub, so many times without a pause."""
        self.board("report_overcurrent", f"{port} {times}")

    def supply(self, *readings):
        """What the service reads next of the hub's supply, once a second: 0 low, 1 high. The last one stays."""
        self.board("temperature", ",".join(map(str, readings)))

    def configure(self, port, number):
        """Chooses another configuration of a device: an iPhone's second one brings its modem."""
        self.run(f"echo {number} > {self.usb_path(port)}/bConfigurationValue")

    def disk_partno(self, present):
        """Whether disks that come from now on have the attribute."""
        self.board("disk_partno", int(present))

    def poll_media(self, milliseconds):
        """How often the kernel asks disks with a changeable medium, also those already there; 0: never."""
        self.run(f"echo {milliseconds} > /sys/module/block/parameters/events_dfl_poll_msecs")

    def reset(self):
        """Between tests: service stopped, everything pulled, board as after booting, folders empty, all forgotten."""
        self.stop_service(signal.SIGKILL)
        # Before the pulling: a disk whose mount is left over keeps its name, and the next one becomes sdb.
        self.run("for point in $(grep ' /tmp/' /proc/mounts | cut -d' ' -f2 | sort -r); do umount -l $point; done; "
                 "rm -rf /tmp/* /dev/shm/* /data/* /run/kipc/usb")
        for device in list(self._plugged):
            if device.port is not None and device is not self.vehicle_hub:
                self.unplug(device)
        if self.vehicle_hub.port is None:
            self.plug("1", self.vehicle_hub)
            self.wait_path(f"{CONTROLLER}/usb1/1-1/1-1:1.0")
        self.wait_no(f"{CONTROLLER}/usb1/1-1/1-1.* /sys/block/sd*")
        self.restore_power()
        self.run(f"cd {BOARD} && echo - > rewrite && echo 0 > disk_partno && echo 0 > overcurrent && "
                 "echo 0,0 > overcurrent_clears && echo 1 > temperature && echo 240 > diag_result && "
                 "echo 0 > /sys/module/block/parameters/events_dfl_poll_msecs")
        with self._changed:
            self._records.clear()
            self._logs.clear()
            self._board.clear()
            self._errors.clear()
            self._starts.clear()
            self._service_end = None


def _first(found):
    return next(iter(found), None)


def _from_hex(text):
    return b"" if text == "-" else bytes.fromhex(text)


def _shell_text(command):
    """A command of several lines as one shell word of one line."""
    return '"$(printf %b ' + shlex.quote("".join(f"\\0{byte:03o}" for byte in command.encode())) + ')"'
