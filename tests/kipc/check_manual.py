#!/usr/bin/python3
"""check_manual.py PROGRAM PAGE COMPLETION: the man page is without fault, and page and bash completion know exactly the
options that the program's --help lists. A program with subcommands is asked for the help of each."""
import os
import pathlib
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])--[a-z][a-z0-9-]*")


def run(*words):
    return subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          env={"PATH": "/usr/bin:/bin", "COLUMNS": "200"})


def subcommands(text):
    """The names below "Subcommands:"."""
    _, _, behind = text.partition("\nSubcommands:\n")
    return [line.split()[0] for line in behind.split("\n\n")[0].splitlines() if re.match(r"  [a-z]", line)]


def helped(*words):
    """All options that the help of the program, and of its subcommands, lists at the begin of a line."""
    done = run(*words, "--help")
    if done.returncode != 0:
        sys.exit(f"{' '.join(words)} --help ends with {done.returncode}: {done.stdout}")
    options = {option for line in done.stdout.splitlines() if re.match(r"  +-", line)
               for option in OPTION.findall(line.strip().split("  ")[0])}
    for name in subcommands(done.stdout):
        options |= helped(*words, name)
    return options


def documented(page):
    """The options that the page's lists explain: ".It Fl -name"."""
    return {"-" + name if name.startswith("-") else name
            for name in re.findall(r"^\.It .*?Fl (-[a-z][a-z0-9-]*)", page, re.M)}


def completed(completion, program):
    """What bash offers behind "program --", subcommands included."""
    script = f'''
        source "{completion}"
        offer() {{ COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); "_{program.replace("-", "_")}" "$1" "${{@: -1}}" \
            "${{@: -2:1}}"; printf '%s\\n' "${{COMPREPLY[@]}}"; }}
        offer {program} --
        for name in $(offer {program} ""); do case $name in -*) ;; *) offer {program} "$name" -- ;; esac; done'''
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
