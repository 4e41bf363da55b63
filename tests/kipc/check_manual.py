#!/usr/bin/python3
"""check_manual.py PROGRAM PAGE COMPLETION: the man page is without fault, and page and bash completion know exactly the
options that the program's --help lists."""
import os
import pathlib
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])--[a-z][a-z0-9-]*")


def run(*words):
    return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          env={"PATH": "/usr/bin:/bin", "COLUMNS": "200"})


def helped(program):
    """All options that the help lists at the begin of a line."""
    done = run(program, "--help")
    if done.returncode != 0:
        sys.exit(f"{program} --help ends with {done.returncode}: {done.stdout}")
    return {option for line in done.stdout.splitlines() if re.match(r"  +-", line)
            for option in OPTION.findall(line.strip().split("  ")[0])}


def documented(page):
    """The options that the page's lists explain: ".It Fl -name"."""
    return {"-" + name if name.startswith("-") else name
            for name in re.findall(r"^\.It .*?Fl (-[a-z][a-z0-9-]*)", page, re.M)}


def completed(completion, program):
    """What bash offers behind "program --"."""
    script = f'''
        source "{completion}"
        COMP_WORDS=({program} --); COMP_CWORD=1
        "_{program.replace("-", "_")}" {program} -- {program}
        printf '%s\\n' "${{COMPREPLY[@]}}"'''
    done = run("bash", "--norc", "-c", script)
    if done.returncode != 0:
        sys.exit(f"{completion} does not run: {done.stdout}")
    return set(OPTION.findall(done.stdout))


def main(program, page, completion):
    faults = []
    lint = run("mandoc", "-Tlint", "-Wwarning", page)
    if lint.returncode != 0 or lint.stdout:
        faults.append(f"mandoc complains:\n{lint.stdout}")
    wanted = helped(program)
    if len(wanted) < 3:
        faults.append(f"--help lists {wanted} only: is this the right program?")
    for name, found in (("the man page", documented(pathlib.Path(page).read_text())),
                        ("the completion", completed(completion, os.path.basename(program)))):
        if found != wanted:
            faults.append(f"{name} has not {sorted(wanted - found)}, and has {sorted(found - wanted)}"
                          f" that --help does not list")
    print("\n".join(faults) if faults else f"{len(wanted)} options, everywhere the same")
    return 1 if faults else 0


sys.exit(main(*sys.argv[1:]))
