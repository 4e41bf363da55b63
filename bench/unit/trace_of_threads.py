"""Where the processor's time of some threads goes, from the kernel's own trace of the virtual head unit.

The kernel notes when each of the service's threads gets the processor and gives it back, and when it enters and leaves
which system call. What lies between is a slice: a thread, what it was at, from when to when. The trace itself costs
some hundred instructions an entry, which are in the slices."""
import re
from typing import NamedTuple

FOLDER = "/sys/kernel/tracing"

# Of arm64, asm-generic/unistd.h.
CALLS = {22: "epoll_pwait", 25: "fcntl", 29: "ioctl", 34: "mkdirat", 35: "unlinkat", 39: "umount2", 40: "mount",
         49: "chdir", 53: "fchmodat", 56: "openat", 57: "close", 59: "pipe2", 63: "read", 64: "write", 72: "pselect6",
         73: "ppoll", 79: "newfstatat", 80: "fstat", 98: "futex", 101: "nanosleep", 115: "clock_nanosleep",
         203: "connect", 206: "sendto", 207: "recvfrom", 211: "sendmsg", 220: "clone", 260: "wait4", 435: "clone3"}

WORDS = {"mount": "mount", "umount2": "mount", "mkdirat": "directories", "unlinkat": "directories",
         "fchmodat": "directories", "chdir": "directories", "clone": "children", "clone3": "children",
         "wait4": "children", "pipe2": "children", "ioctl": "transfers", "recvfrom": "events", "pselect6": "events",
         "sendto": "records", "sendmsg": "records", "connect": "records", "futex": "records",
         "epoll_pwait": "records"}
STDERR = 2

LINE = re.compile(r"^\s*(?P<name>.+)-(?P<pid>\d+)\s+\[\d+\]\s+\S+\s+(?P<time>[\d.]+): (?P<event>\w+): (?P<rest>.*)$")
ENTER = re.compile(r"NR (\d+) \((\w*)")
EXIT = re.compile(r"NR (\d+) = (-?\d+)")
SWITCH = re.compile(r"prev_pid=(\d+) .* next_pid=(\d+) ")


class Slice(NamedTuple):
    thread: int
    what: str       # "user mode" (libraries included), or one of the words above
    begin: float    # seconds of the guest's clock
    end: float


class Call(NamedTuple):
    thread: int
    name: str
    entered: float
    left: float


class Thread:
    def __init__(self):
        self.since = None       # has the processor since then
        self.call = None        # (name, first argument, entered) of the call that it is in
        self.waiting = []       # slices of a call that it was in when the trace began
        self.files = set()      # descriptors that it opened by path
        self.child = False      # a child of its runs: what it reads and waits for is that child's


def start(unit, threads):
    """Traces these threads of the guest, and the processes that they start, from now on."""
    unit.sh(f"[ -e {FOLDER}/tracing_on ] || mount -t tracefs trace {FOLDER}")
    unit.sh(f"cd {FOLDER}; echo 0 > tracing_on; echo 16384 > buffer_size_kb; echo {' '.join(map(str, threads))} > "
            "set_event_pid; echo 1 > options/event-fork; echo 1 > events/sched/sched_switch/enable; "
            "echo 1 > events/raw_syscalls/enable; echo > trace; echo 1 > tracing_on")


def stop(unit):
    unit.sh(f"echo 0 > {FOLDER}/tracing_on")
    text = unit.run(f"cat {FOLDER}/trace", timeout=120).text
    entries = re.search(r"entries-in-buffer/entries-written: (\d+)/(\d+)", text)
    if not entries or entries[1] != entries[2]:
        raise ValueError(f"the trace is not whole: {entries and entries[0]}")
    return text


def read(text):
    """(slices, calls) of a trace."""
    threads, slices, calls = {}, [], []

    def thread(number):
        return threads.setdefault(number, Thread())

    def account(number, now):
        one = thread(number)
        if one.since is None:
            return
        part = (number, one.since, now)
        if one.call:
            slices.append(Slice(number, what_of(one), one.since, now))
        elif one.waiting is not None:
            one.waiting.append(part)
        else:
            slices.append(Slice(number, "user mode", one.since, now))
        one.since = now

    for line in text.splitlines():
        found = LINE.match(line)
        if not found:
            continue
        number, now, rest = int(found["pid"]), float(found["time"]), found["rest"]
        if found["event"] == "sched_switch":
            before, after = map(int, SWITCH.search(rest).groups())
            account(before, now)
            thread(before).since = None
            thread(after).since = now
            continue
        one = thread(number)
        account(number, now)
        one.since = now
        if found["event"] == "sys_enter":
            call, argument = ENTER.match(rest).groups()
            one.waiting = None
            one.call = (CALLS.get(int(call), f"call {call}"), int(argument or "0", 16), now)
            continue
        call, result = map(int, EXIT.match(rest).groups())
        name = CALLS.get(call, f"call {call}")
        if one.call is None:     # it was in this call when the trace began
            one.call = (name, 0, now)
            slices.extend(Slice(number, what_of(one), begin, end) for _, begin, end in one.waiting or [])
            one.waiting = None
        calls.append(Call(number, name, one.call[2], now))
        follow(one, name, result)
        one.call = None
    calls.extend(Call(number, one.call[0], one.call[2], float("inf")) for number, one in threads.items() if one.call)
    return slices, calls


def follow(one, name, result):
    """What a call that was left changes."""
    if name == "openat" and result >= 0:
        one.files.add(result)
    elif name == "close":
        one.files.discard(one.call[1])
    elif name in ("clone", "clone3") and result > 0:
        one.child = True
    elif name == "wait4" and result > 0:
        one.child = False


def what_of(one):
    name, argument, _ = one.call
    if name == "openat" or name in ("read", "close", "fstat", "newfstatat") and argument in one.files:
        return "attributes"
    if one.child and name in ("read", "pselect6", "close"):
        return "children"
    if name == "write":
        return "log" if argument == STDERR or argument in one.files else "records"
    return WORDS.get(name, "other calls")


def total(slices, threads=None, begin=0.0, end=float("inf")):
    """Microseconds by what they were spent on, of these threads, between two moments."""
    spent = {}
    for one in slices:
        if threads is None or one.thread in threads:
            length = min(one.end, end) - max(one.begin, begin)
            if length > 0:
                spent[one.what] = spent.get(one.what, 0.0) + length * 1e6
    return {what: round(time, 1) for what, time in spent.items()}
