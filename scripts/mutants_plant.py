"""Reads the fault file of scripts/mutants.sh and plants or removes one fault at a time.

    python3 mutants_plant.py FAULTS list|check|apply|restore NAME_PATTERN

A fault is a block of the fault file:

    == name: what the fault does
    file: path/from/the/top
    - original line(s), exactly as in the file (indentation included)
    + the line(s) that replace them

The original lines must be found exactly once in the file. `apply` keeps a copy of the file next to it
(FILE.mutant-original) and `restore` writes it back.
"""

import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BACKUP = ".mutant-original"


def read_faults(path):
    faults = []
    current = None
    with open(path) as handle:
        for number, line in enumerate(handle, 1):
            line = line.rstrip("\n")
            if line.startswith("== "):
                name, _, description = line[3:].partition(": ")
                current = {"name": name.strip(), "description": description.strip(), "file": None,
                           "old": [], "new": [], "line": number}
                faults.append(current)
            elif current is None or not line.strip() or line.startswith("#"):
                continue
            elif line.startswith("file: "):
                current["file"] = line[len("file: "):].strip()
            elif line.startswith("- "):
                current["old"].append(line[2:])
            elif line.startswith("+ "):
                current["new"].append(line[2:])
            elif line == "+":
                current["new"].append("")
            else:
                sys.exit("%s:%d: a fault line starts with '== ', 'file: ', '- ' or '+ '" % (path, number))
    return faults


def locate(fault):
    path = os.path.join(ROOT, fault["file"])
    with open(path) as handle:
        text = handle.read()
    old = "\n".join(fault["old"]) + "\n"
    return path, text, old, text.count(old)


def main():
    faults_path, command, pattern = sys.argv[1], sys.argv[2], sys.argv[3]
    chosen = [f for f in read_faults(faults_path) if re.search(pattern, f["name"])]
    problems = 0
    for fault in chosen:
        if command == "list":
            print("%s\t%s\t%s" % (fault["name"], fault["file"], fault["description"]))
        elif command == "check":
            if not fault["file"] or not fault["old"]:
                print("%s: needs a file and original lines" % fault["name"])
                problems += 1
                continue
            _path, _text, _old, count = locate(fault)
            if count != 1:
                print("%s: its original lines are found %d times in %s" % (fault["name"], count, fault["file"]))
                problems += 1
        elif command == "apply":
            path, text, old, count = locate(fault)
            if count != 1:
                sys.exit("%s: its original lines are found %d times in %s" % (fault["name"], count, fault["file"]))
            with open(path + BACKUP, "w") as handle:
                handle.write(text)
            with open(path, "w") as handle:
                handle.write(text.replace(old, "\n".join(fault["new"]) + "\n"))
        elif command == "restore":
            # Written anew rather than moved back: the file must be newer than what the fault's build made.
            path = os.path.join(ROOT, fault["file"])
            if os.path.exists(path + BACKUP):
                with open(path + BACKUP) as handle:
                    original = handle.read()
                with open(path, "w") as handle:
                    handle.write(original)
                os.remove(path + BACKUP)
    if command == "check":
        names = [f["name"] for f in chosen]
        print("%d faults, %d with problems" % (len(names), problems))
        if len(set(names)) != len(names):
            print("fault names repeat")
            problems += 1
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
