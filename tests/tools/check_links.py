#!/usr/bin/python3
"""Every relative link of a Markdown page leads to a file or folder that exists, and to a heading or anchor of it when it
names one. Exits non-zero with one line per offence. Links to other machines are not looked at."""
import pathlib
import re
import sys
import urllib.parse

ROOT = pathlib.Path(__file__).resolve().parents[2]
FEWEST_LINKS = 50      # fewer: these are not the pages of this project, or they are not read as they should be


def pages():
    """The project's own: not what a build or a script made."""
    return [path for path in sorted(ROOT.rglob("*.md"))
            if not any(part == "build" or part.startswith(".") for part in path.relative_to(ROOT).parts)]


def lines_outside_code(text):
    """(number, line) without fenced and indented blocks, and with code spans taken out."""
    fenced, in_list = False, False
    for number, line in enumerate(text.splitlines(), 1):
        if line.lstrip().startswith("```"):
            fenced = not fenced
            continue
        if line.strip() and not line.startswith(" "):
            in_list = re.match(r"([-*+]|\d+\.) ", line) is not None
        if not fenced and (in_list or not line.startswith("    ")):
            yield number, line


def links(text):
    """(line number, target) of [text](target), ![text](target) and [name]: target."""
    for number, line in lines_outside_code(text):
        line = re.sub(r"`[^`]*`", "code", line)
        for target in re.findall(r"\]\(\s*<?([^)\s>]*)[^)]*\)", line) + re.findall(r"^\[[^\]]+\]:\s*(\S+)", line):
            yield number, target


def anchors(text):
    """The names of a page's headings, as web pages of repositories make them, and of its own anchors."""
    found = set(re.findall(r"<a\s+(?:id|name)=\"([^\"]+)\"", text))
    times = {}
    for _, line in lines_outside_code(text):
        heading = re.match(r"#{1,6}\s+(.*?)\s*#*$", line)
        if not heading:
            continue
        shown = re.sub(r"<[^>]*>|\]\([^)]*\)", "", heading[1])
        name = re.sub(r"[^\w\- ]", "", shown.strip().lower()).replace(" ", "-")
        count = times.get(name, 0)
        times[name] = count + 1
        found.add(f"{name}-{count}" if count else name)
    return found


def fault(page, target):
    """What is wrong with a link of a page; None when nothing is, or when it leads to another machine."""
    if re.match(r"[a-zA-Z][a-zA-Z0-9+.-]*:", target):
        return None
    if not target:
        return "leads nowhere"
    path, _, anchor = urllib.parse.unquote(target).partition("#")
    file = page if not path else ROOT / path[1:] if path.startswith("/") else page.parent / path
    if not file.exists():
        return f"there is no file {path}"
    if anchor and (file.suffix != ".md" or anchor not in anchors(file.read_text())):
        return f"there is no heading or anchor #{anchor} in {file.resolve().relative_to(ROOT)}"
    return None


def main():
    count, faults = 0, []
    for page in pages():
        for number, target in links(page.read_text()):
            count += 1
            wrong = fault(page, target)
            if wrong:
                faults.append(f"{page.relative_to(ROOT)}:{number}: {target}: {wrong}")
    if count < FEWEST_LINKS:
        faults.append(f"only {count} links were found: are these the right pages?")
    print("\n".join(faults) if faults else f"{count} links, all lead somewhere")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
