#!/usr/bin/env python3
"""Holds a page to what it says.

    check_doc.py DOC --program FILE    writes the program of the document (its first ```cpp block) to FILE
    check_doc.py DOC --run STORLIB_H   runs the commands of its ```console blocks, in one shell and an
                                       empty folder, and compares what they print; compares its table
                                       of codes with the header's

    check_doc.py DOC --run-stored      the same for commands only, with OMRA_STORE as OMRA_TEST_STORE has it
                                       and a fresh namespace; exit code 77 when there is none

In a console block "$ " begins a command and "> " continues it; the other lines are its output.
"""
import os
import re
import subprocess
import sys
import tempfile

END_MARK = "--- end of a command ---"


def blocks(text, language):
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


def commands(text):
    """Pairs of a command and the output that the document shows for it."""
    found = []
    for line in "".join(blocks(text, "console")).splitlines():
        if line.startswith("$ "):
            found.append([line[2:], ""])
        elif line.startswith("> "):
            found[-1][0] += "\n" + line[2:]
        else:
            found[-1][1] += line + "\n"
    return found


def check_commands(text):
    shown = commands(text)
    script = "\n".join(f"{command}\necho '{END_MARK}'" for command, _ in shown)
    with tempfile.TemporaryDirectory() as folder:
        ran = subprocess.run(["bash", "-c", script], cwd=folder, text=True, capture_output=True)
    printed = ran.stdout.split(END_MARK + "\n")
    good = len(printed) == len(shown) + 1
    for (command, expected), output in zip(shown, printed):
        if output != expected:
            print(f"$ {command}\nshown:\n{expected}printed:\n{output}")
            good = False
    if not good:
        print(f"standard error:\n{ran.stderr}")
    return good


def check_codes(text, header):
    rows = re.findall(r"^\| (-?\d+) \| `(OMRALIB_\w+)` \|", text, re.MULTILINE)
    codes = [(value, name) for name, value in re.findall(r"X\((OMRALIB_\w+), (-?\d+),", header)]
    for row in set(rows) ^ set(codes):
        print("only in the document:" if row in rows else "only in the header:", *row)
    return set(rows) == set(codes)


def main():
    document, mode, path = (sys.argv[1:] + [None])[:3]
    text = open(document, encoding="utf-8").read()
    if mode == "--program":
        with open(path, "w", encoding="utf-8") as program:
            program.write(blocks(text, "cpp")[0])
        return 0
    if mode == "--run-stored":
        place, question, options = os.environ.get("OMRA_TEST_STORE", "").partition("?")
        if not place:
            return 77
        os.environ["OMRA_STORE"] = f"{place}/doc-{os.urandom(8).hex()}{question}{options}"
        return 0 if check_commands(text) else 1
    good = [check_commands(text), check_codes(text, open(path, encoding="utf-8").read())]
    return 0 if all(good) else 1


sys.exit(main())
