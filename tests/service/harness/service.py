"""The service as a process: started, listened to, and looked at from outside."""
import fcntl
import os
import re
import signal
import subprocess
import threading
import time
from dataclasses import dataclass

from . import world

PROGRAM = world.BENCH + "/bin/usbservice"
F_SETPIPE_SZ = 1031

TRACE, DETAIL, INFO, REFUSED, FAILED = 32, 64, 128, 160, 192
# [  123.456789] 128 2816.0 417/frame-usb UPort.cpp:42 CalcUsbPort: text
LINE = re.compile(r"\[ *(?P<time>\d+\.\d+)\] (?P<level>\d+) (?P<module>\d+)\.(?P<submodule>\d+) (?P<thread>\d+)/\S* "
                  r"(?:\((?P<lost>\d+) lines lost\) )?(?P<file>[^ :]+):(?P<line>\d+) (?P<function>[^:]+): (?P<text>.*)",
                  re.S)
STORE_LINE = re.compile(r"\[SHM-IF\]|open failed$|alloc fail |failed to get time")      # the settings store's own
SANITIZER = re.compile(r"ERROR: (Address|Leak)Sanitizer|WARNING: ThreadSanitizer|runtime error:|SUMMARY: \w+Sanitizer")


@dataclass
class Line:
    """One line of the service's standard error. `level` is None when it is none of the trace log's."""
    raw: str
    level: int = None
    module: str = ""
    thread: int = 0
    place: str = ""
    function: str = ""
    text: str = ""
    lost: int = 0
    time: float = 0         # monotonic, in seconds


def parse(raw):
    found = LINE.fullmatch(raw)
    if not found:
        return Line(raw, text=raw)
    return Line(raw, int(found["level"]), f"{found['module']}.{found['submodule']}", int(found["thread"]),
                f"{found['file']}:{found['line']}", found["function"], found["text"], int(found["lost"] or 0),
                float(found["time"]))


class Service:
    """One run. Its log is read all the time by a thread of ours. `keep`: which lines (bytes) are worth keeping;
    `reads` false: nobody reads it; `before`: called in the new process before it becomes the service."""

    def __init__(self, level=0, environment=None, keep=None, reads=True, before=None):
        own = {"KA_LOG_LEVEL": str(level), "SYSTEMD_DEVICE_VERIFY_SYSFS": "0", "PATH": "/usr/bin:/bin",
               # What was freed is kept for a while to be watched, which counts as the service's memory.
               "ASAN_OPTIONS": "abort_on_error=0:handle_abort=1:quarantine_size_mb=32",
               "UBSAN_OPTIONS": "print_stacktrace=1", "TSAN_OPTIONS": "halt_on_error=0"}
        own.update(environment or {})
        self.level = level
        self.keep = keep
        self.lines = []
        self.changed = threading.Condition()
        self.ended = False
        read, write = os.pipe2(os.O_CLOEXEC)
        try:
            fcntl.fcntl(write, F_SETPIPE_SZ, 1 << 20)
        except OSError:
            pass        # the usual size does as well, the service may then lose lines of its log
        self.process = subprocess.Popen([PROGRAM], stdin=subprocess.DEVNULL, stdout=write, stderr=write, env=own,
                                        cwd="/", preexec_fn=before)
        os.close(write)
        self.pid = self.process.pid
        self.unread = None if reads else read
        self.reader = None
        if not reads:
            return
        self.reader = threading.Thread(target=self.listen, args=(read,), name="log", daemon=True)
        self.reader.start()

    def listen(self, read):
        rest = b""
        with open(read, "rb", buffering=0) as pipe:
            while data := pipe.read(1 << 18):
                *whole, rest = (rest + data).split(b"\n")
                parsed = [parse(line.decode("utf-8", "backslashreplace")) for line in whole
                          if self.keep is None or self.keep(line)]
                with self.changed:
                    self.lines += parsed
                    self.changed.notify_all()
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def stop(self):
        """Ends it as the system does at the end. Returns how it ended: a negative signal, or its exit status."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(5)
        self.hang_up()
        if self.reader:
            self.reader.join(5)
        return self.process.returncode

    def hang_up(self):
        """Closes a log that was not read."""
        if self.unread is not None:
            os.close(self.unread)
            self.unread = None

    def runs(self):
        return self.process.poll() is None

    # --- log ---

    def mark(self):
        with self.changed:
            return len(self.lines)

    def texts(self, since=0, level=None):
        with self.changed:
            return [line.text for line in self.lines[since:] if level is None or line.level == level]

    def since(self, mark):
        with self.changed:
            return list(self.lines[mark:])

    def wait_log(self, text, since=0, timeout=10):
        """Waits for a line with exactly this text, or one that the compiled expression fits wholly. None: it did
        not come."""
        fits = text.fullmatch if hasattr(text, "fullmatch") else text.__eq__
        deadline = time.monotonic() + timeout
        at = since
        while True:
            with self.changed:
                while at < len(self.lines):
                    if fits(self.lines[at].text):
                        return self.lines[at]
                    at += 1
                left = deadline - time.monotonic()
                if left <= 0 or self.ended:
                    return None
                self.changed.wait(left)

    def broken_lines(self):
        """Lines that are no whole line of any log."""
        with self.changed:
            return [line.raw for line in self.lines if line.level is None and not STORE_LINE.search(line.raw)]

    def sanitizer_reports(self):
        with self.changed:
            raw = [line.raw for line in self.lines]
        return [line for line in raw if SANITIZER.search(line)]

    # --- what the kernel knows of it ---

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def open_files(self):
        out = []
        for entry in os.listdir(f"/proc/{self.pid}/fd"):
            try:
                out.append(os.readlink(f"/proc/{self.pid}/fd/{entry}"))
            except FileNotFoundError:
                pass
        return sorted(out)

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def memory(self):
        """Resident bytes."""
        with open(f"/proc/{self.pid}/statm") as file:
            return int(file.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")

    def waits(self):
        """Where each thread of the service, and of what it started, is in the kernel."""
        out = []
        for pid in [str(self.pid)] + self.children():
            for task in os.listdir(f"/proc/{pid}/task") if os.path.isdir(f"/proc/{pid}") else []:
                words = []
                for name in ("comm", "wchan", "syscall"):
                    try:
                        with open(f"/proc/{pid}/task/{task}/{name}") as file:
                            words.append(file.read().strip())
                    except OSError as error:
                        words.append(error.strerror)
                out.append(" ".join([task] + words))
        return out

    def children(self):
        out = []
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{task}/children") as file:
                out += file.read().split()
        return out
