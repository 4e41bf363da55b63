"""The log calls of the sources: who says what, and with which format."""
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
STRING = r'"(?:[^"\\]|\\.)*"'

SERVICE = (ROOT / "usbservice" / "src", r"(?:ULOG\(\s*[^,]+?,|ka_log_print\((?:[^,]+,){6})")
PLATFORM = (ROOT / "platform", r"PLOG\(\s*[^,]+?,")
STORE = (ROOT / "shm", r"(?:Complain\(\s*[^,]+?|fprintf\(stderr),(?!\s*\"\[%s\]\[%s\]%s\\n\")")


def unescape(literals):
    return "".join(one[1:-1] for one in re.findall(STRING, literals)) \
        .replace('\\"', '"').replace("\\n", "\n").replace("\\\\", "\\")


LEVELS = {"LOG_FAILED": 192, "LOG_REFUSED": 160, "LOG_INFO": 128, "LOG_DETAIL": 64, "LOG_TRACE": 32}


def formats(folder, opening):
    """(file, line, format) of every log call below a folder; what they are made of aside."""
    for path, line, form, _ in calls(folder, opening):
        yield path, line, form


def calls(folder, opening):
    """The same with the levels that it may have; the store's complaints have none."""
    call = re.compile(opening + r"\s*((?:" + STRING + r"\s*)+)", re.S)
    for path in sorted(folder.rglob("*.cpp")) + sorted(folder.rglob("*.h")):
        if path.name in ("ULog.h", "Log.h"):
            continue
        text = path.read_text()
        for found in call.finditer(text):
            head = text[found.start():found.start(1)]
            levels = {LEVELS[name] for name in re.findall(r"\bLOG_[A-Z]+\b", head) if name in LEVELS}
            form = unescape(found.group(1)).rstrip("\n")
            yield path.relative_to(ROOT), text.count("\n", 0, found.start()) + 1, form, levels
