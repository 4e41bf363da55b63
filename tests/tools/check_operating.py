#!/usr/bin/python3
"""docs/operating.md explains every log text of the service, the platform and the store, and no other.

A text stands there between backticks as it stands in the source, in a row of a table that names its level. Blanks at
its end count."""
import re
import sys

from log_calls import PLATFORM, ROOT, SERVICE, STORE, calls

PAGE = ROOT / "docs" / "operating.md"
LOG = "## The log"


def explained():
    """(text, levels) for what stands between backticks in the column of texts of each table."""
    page = PAGE.read_text()
    for line in page[page.index(LOG):].splitlines():
        if not line.startswith("| ") or line.startswith("| Level") or line.startswith("| Text"):
            continue
        cells = line.strip("| ").split(" | ")
        column = next((place for place, cell in enumerate(cells) if "`" in cell), None)
        if column is not None:
            levels = {int(number) for number in re.findall(r"\d+", cells[0])} if column > 0 else set()
            for text in re.findall(r"`([^`]+)`", cells[column]):
                yield text, levels


def main():
    said, where = {}, {}
    for source in (SERVICE, PLATFORM, STORE):
        for path, line, form, levels in calls(*source):
            said.setdefault(form, set()).update(levels)
            where.setdefault(form, f"{path}:{line}")
    told = {}
    for text, levels in explained():
        told.setdefault(text, set()).update(levels)
    faults = [f"{where[form]}: {PAGE.name} does not explain: {form}" for form in said if form not in told]
    faults += [f"{PAGE.name} explains what nobody says: {form}" for form in sorted(set(told) - set(said))]
    faults += [f"{where[form]}: level {sorted(levels)}, but in {PAGE.name} {sorted(told[form])}: {form}"
               for form, levels in said.items() if form in told and told[form] != levels]
    if len(said) < 350:
        faults.append(f"only {len(said)} log texts were found: are these the right folders?")
    print("\n".join(faults) if faults else f"{len(said)} log texts, each explained")
    return 1 if faults else 0


sys.exit(main())
