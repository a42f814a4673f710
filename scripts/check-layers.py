#!/usr/bin/env python3
"""Fails when a library includes a header of a library above it.

The layers, bottom up (each may include its own headers and those of the
layers it builds on, nothing else):

    platform
    logfront      <- platform
    support       <- logfront, platform
    log           <- support, logfront, platform        (the logging framework)
    corvantabase  <- logfront, platform
    task          <- logfront, platform
    ipclib        <- task, logfront, platform
    drive         <- platform                           (the drive records)
    worker        <- all of the above
    peer          <- all of the above, and the worker's drive-path checks

Headers under include/ are installed: they may include only other headers
under include/, never a private one from src/.

Usage: check-layers.py [ROOT]      check the tree at ROOT (default: this one)
       check-layers.py --selftest  show that a wrong include is caught
"""

import os
import re
import sys
import tempfile

BUILDS_ON = {
    "platform": set(),
    "logfront": {"platform"},
    "support": {"logfront", "platform"},
    "log": {"support", "logfront", "platform"},
    "corvantabase": {"logfront", "platform"},
    "task": {"logfront", "platform"},
    "ipclib": {"task", "logfront", "platform"},
    "drive": {"platform"},
    "worker": {"drive", "ipclib", "task", "corvantabase", "log", "support", "logfront", "platform"},
    "peer": {"worker", "drive", "ipclib", "task", "corvantabase", "log", "support", "logfront", "platform"},
}

# Where each library's files are, longest prefix first wins. Paths are
# relative to the root; an include path is looked up under include/ and src/.
OWNERS = [
    ("include/tamsel/expected.h", "platform"),
    ("include/tamsel/ipc/", "ipclib"),
    ("include/tamsel/task/", "task"),
    ("include/tolv/log/", "logfront"),
    ("include/tolv/platform/", "platform"),
    ("include/tolv/worker/DriveRequests.h", "drive"),
    ("src/worker/DriveRequests.cpp", "drive"),
    ("src/platform/", "platform"),
    ("src/logfront/", "logfront"),
    ("src/support/", "support"),
    ("src/log/", "log"),
    ("src/corvantabase/", "corvantabase"),
    ("src/task/", "task"),
    ("src/apps/tamsel/lib/ipc/ipclib/", "ipclib"),
    ("src/worker/", "worker"),
    ("src/peer/", "peer"),
]

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^">]+)[">]')


def owner(path):
    best = None
    for prefix, library in OWNERS:
        if path == prefix or (prefix.endswith("/") and path.startswith(prefix)):
            if best is None or len(prefix) > len(best[0]):
                best = (prefix, library)
    return best[1] if best else None


def resolve(root, name):
    """The root-relative file an include names, or None for a system header."""
    for base in ("include", "src"):
        candidate = os.path.join(base, name)
        if os.path.isfile(os.path.join(root, candidate)):
            return candidate
    return None


def check(root):
    problems = []
    for top in ("include", "src"):
        for folder, _, files in os.walk(os.path.join(root, top)):
            for file in sorted(files):
                if not file.endswith((".h", ".hpp", ".cpp", ".cc")):
                    continue
                path = os.path.relpath(os.path.join(folder, file), root)
                library = owner(path)
                if library is None:
                    problems.append(f"{path}: belongs to no layer; add it to scripts/check-layers.py")
                    continue
                with open(os.path.join(root, path), encoding="utf-8") as text:
                    for number, line in enumerate(text, 1):
                        match = INCLUDE.match(line)
                        if not match:
                            continue
                        target = resolve(root, match.group(2))
                        if target is None:
                            continue
                        where = f"{path}:{number}: {match.group(0).strip()}"
                        if path.startswith("include/") and not target.startswith("include/"):
                            problems.append(f"{where}: a public header includes a private one")
                        used = owner(target)
                        if used is None:
                            problems.append(f"{where}: includes a file of no layer")
                        elif used != library and used not in BUILDS_ON[library]:
                            problems.append(f"{where}: {library} includes {used}, which is not below it")
    return problems


def selftest():
    """A tree with one upward include and one private include from a public
    header must give exactly those two problems; the same tree without them none."""
    with tempfile.TemporaryDirectory() as root:
        def write(path, text):
            os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
            with open(os.path.join(root, path), "w", encoding="utf-8") as f:
                f.write(text)

        write("include/tolv/log/Log.h", "#pragma once\n#include <cstdint>\n")
        write("src/support/LxMutex.h", "#pragma once\n#include <tolv/log/Log.h>\n")
        write("src/log/Logger.h", '#pragma once\n#include "support/LxMutex.h"\n')
        write("src/logfront/Log.cpp", "#include <tolv/log/Log.h>\n")
        if check(root):
            print("selftest: a clean tree was refused:", *check(root), sep="\n  ")
            return 1
        write("src/logfront/Log.cpp", '#include <tolv/log/Log.h>\n#include "log/Logger.h"\n')
        write("include/tolv/log/Log.h", '#pragma once\n#include "support/LxMutex.h"\n')
        found = check(root)
        expected = ["logfront includes log", "a public header includes a private one",
                    "logfront includes support"]
        missing = [e for e in expected if not any(e in p for p in found)]
        if missing or len(found) != len(expected):
            print("selftest: expected", expected, "got", found)
            return 1
    print("selftest: upward and private includes are refused")
    return 0


def main():
    if sys.argv[1:] == ["--selftest"]:
        return selftest()
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    problems = check(root)
    for problem in problems:
        print(problem)
    if problems:
        print(f"{len(problems)} include(s) against the layering", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
