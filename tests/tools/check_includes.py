#!/usr/bin/python3
"""Includes point one way: from the frames down to the helpers, and never in a circle.

Checks every #include of the service's own sources against the order of folders below; exits non-zero with one line
per offence."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = ROOT / "usbservice" / "src"

# A folder may include itself and what is reachable from it.
MAY_INCLUDE = {
    "record": set(),
    "misc": {"platform"},
    "board": {"misc"},
    "setting": {"board", "record", "shm"},
    "notify": {"setting", "record", "platform"},
    "storage": {"notify"},
    "access": {"notify"},
    "node": {"storage", "access"},
    "port": {"node"},
    "item": {"node"},
    "event": {"node"},
    "frame": {"event", "item", "port"},
    ".": {"frame"},
}


def reachable(folder):
    seen, todo = set(), [folder]
    while todo:
        for below in MAY_INCLUDE.get(todo.pop(), ()):
            if below not in seen:
                seen.add(below)
                todo.append(below)
    return seen | {folder}


def includes(path):
    for number, line in enumerate(path.read_text().splitlines(), 1):
        found = re.match(r'\s*#\s*include\s*"([^"]+)"', line)
        if found:
            yield number, found.group(1)


def circle(graph):
    """A path of headers that leads back to its start, or None."""
    done = set()

    def visit(name, path):
        if name in path:
            return path[path.index(name):] + [name]
        if name in done:
            return None
        for below in graph.get(name, ()):
            found = visit(below, path + [name])
            if found:
                return found
        done.add(name)
        return None

    for name in graph:
        found = visit(name, [])
        if found:
            return found
    return None


def main():
    faults, graph, checked = [], {}, 0
    for path in sorted(SOURCES.rglob("*.h")) + sorted(SOURCES.rglob("*.cpp")):
        name = path.relative_to(SOURCES)
        folder = name.parts[0] if len(name.parts) > 1 else "."
        if folder not in MAY_INCLUDE:
            faults.append(f"{name}: folder '{folder}' has no place in the order")
            continue
        allowed = reachable(folder)
        for number, target in includes(path):
            checked += 1
            target_folder = target.split("/")[0]
            if target_folder not in allowed:
                faults.append(f"{name}:{number}: {folder} may not include {target}")
            if path.suffix == ".h":
                graph.setdefault(str(name), []).append(target)
    found = circle(graph)
    if found:
        faults.append("headers in a circle: " + " -> ".join(found))
    for platform in sorted((ROOT / "platform" / "include").rglob("*.h")):
        for number, target in includes(platform):
            checked += 1
            if not target.startswith("platform/"):
                faults.append(f"{platform.relative_to(ROOT)}:{number}: the platform may not include {target}")
    if checked == 0:
        faults.append("no include was found: is this the right folder?")
    print("\n".join(faults) if faults else f"{checked} includes, all downwards")
    return 1 if faults else 0


sys.exit(main())
