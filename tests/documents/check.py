#!/usr/bin/env python3
"""Checks the documents, and the texts of the sources and the tests.

    check.py pictures|links|snippets|names|removals|layers SOURCE_FOLDER COMPILER
"""
import pathlib
import re
import subprocess
import sys
import tempfile

check, source, compiler = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3]
documents = sorted([*source.glob("*.md"), *source.glob("docs/*.md"), *source.glob("examples/**/*.md")])
wrong = []


def pictures():
    """The pictures in the repository are those that their script makes."""
    committed = source / "docs/pictures"
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run([sys.executable, committed / "make.py", folder], check=True)
        made = {path.name: path.read_bytes() for path in pathlib.Path(folder).iterdir()}
    there = {path.name: path.read_bytes() for path in committed.glob("*.svg")}
    if not made:
        wrong.append("the script makes no picture")
    for name in sorted(made.keys() | there.keys()):
        if made.get(name) != there.get(name):
            wrong.append(f"docs/pictures/{name} is not what docs/pictures/make.py makes: run it")


def anchors(path):
    """The anchors of a document's headings, as the usual renderers make them."""
    headings = re.findall(r"^#+ (.*)$", path.read_text(encoding="utf-8"), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def links():
    """Every link to a file of the repository, and to a heading, leads somewhere."""
    found = 0
    for document in documents:
        text = re.sub(r"```.*?```", "", document.read_text(encoding="utf-8"), flags=re.S)
        for target in re.findall(r"\]\(([^)]+)\)", text):
            if re.match(r"[a-z]+:", target):
                continue
            found += 1
            path, _, anchor = target.partition("#")
            file = (document.parent / path).resolve() if path else document
            if not file.exists():
                wrong.append(f"{document.relative_to(source)}: {target} is not there")
            elif anchor and anchor not in anchors(file):
                wrong.append(f"{document.relative_to(source)}: {target} names no heading")
    if found == 0:
        wrong.append("no link was found")


def snippets():
    """Every piece of C++ in a document compiles by itself, with nothing but the public headers."""
    found = 0
    for document in documents:
        for number, code in enumerate(re.findall(r"```cpp\n(.*?)```", document.read_text(encoding="utf-8"), re.S), 1):
            found += 1
            result = subprocess.run(
                [compiler, "-std=c++17", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", f"-I{source / 'include'}",
                 "-xc++", "-"], input=code, capture_output=True, text=True)
            if result.returncode != 0:
                wrong.append(f"{document.relative_to(source)}, piece {number}:\n{result.stderr}")
    if found == 0:
        wrong.append("no piece of code was found")


def names():
    """The tests and source files that the tables of behaviour name exist, and each file name is unambiguous."""
    tests = set()
    for path in [*source.glob("tests/unit/**/*.cpp"), *source.glob("tests/system/**/*.cpp")]:
        text = path.read_text(encoding="utf-8")
        tests |= {".".join(match) for match in re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", text, re.M)}
    files = [path.name for folder in ("src", "include") for path in source.glob(f"{folder}/**/*.*")]
    for document in (source / "docs/contract.md", source / "docs/threads.md"):
        rows = re.findall(r"^\| .*", document.read_text(encoding="utf-8"), re.M)
        named = re.findall(r"`(\w+)\.(\w+)`", "\n".join(rows))
        for suite, test in named:
            name = f"{suite}.{test}"
            if test in ("cpp", "h"):
                if files.count(name) != 1:
                    wrong.append(f"{document.name}: {files.count(name)} files are called {name}")
            elif name not in tests:
                wrong.append(f"{document.name}: there is no test {name}")
        if not named:
            wrong.append(f"{document.name} names nothing")


def removals():
    """Tests remove directories and unmount through the guard alone, scripts through theirs."""
    guards = {source / "tests/support/OwnWorld.cpp", source / "tests/unit/support/OwnWorldTest.cpp",
              source / "cmake/own-folder.sh"}
    not_called = {source / "tests/system/support/Steps.cpp"}  # stands before the C library's
    inside = {*source.glob("tests/vm/**/*"), *source.glob("tests/fuzz/**/*")}  # their machine is their own
    literal = re.compile(r'"(?:[^"\\\n]|\\.)*"|//[^\n]*')
    call = re.compile(r"\b(remove_all|umount2?|nftw|fts_open)\s*\(")
    command = re.compile(r"\brm +(-\w+ +)*(-\w*[rR]|--recursive)|\bumount +(-\w+ +)*-\w*R|\bfind\b.*-delete\b")
    programs = {*source.glob("tests/**/*.cpp"), *source.glob("tests/**/*.h")}
    scripts = {*source.glob("tests/**/*.sh"), *source.glob("cmake/*.sh"), source / "check", source / "demo"}
    for file in sorted((programs | scripts) - guards - inside):
        for number, line in enumerate(file.read_text(encoding="utf-8").split("\n"), 1):
            code = literal.sub("", line)
            found = command.search(line) or (file in programs - not_called and call.search(code))
            if found:
                wrong.append(f"{file.relative_to(source)}:{number}: {found[0]}: use tests/support/OwnWorld.h, in a "
                             "script cmake/own-folder.sh")
    if not all(guard.exists() for guard in guards) or not programs or not scripts:
        wrong.append("no test was found")


def layers():
    """A room includes what lies below it, as HACKING.md draws the house, and nothing else."""
    below = {
        "src/base": [],
        "src/qxtools": ["base"],
        "src/sysinfo": ["base"],
        "src/driver": ["sysinfo", "base"],
        "src/reloc": ["driver", "sysinfo", "base"],
        "src/snapping": ["reloc", "driver", "sysinfo", "base"],
        "src/engine": ["snapping", "reloc", "driver", "sysinfo", "qxtools", "base"],
        "emulator/machine": ["base", "driver/DriverProtocol.h"],
        "emulator/driver": ["emulator/machine", "base", "driver/DriverProtocol.h"],
        "emulator/supervise": ["emulator/driver", "emulator/machine", "base", "driver/DriverProtocol.h"],
    }
    # The whole driver interface in one header, for programs that know it by this path.
    whole = source / "src/driver/LinuxSnapLib.h"
    rooms = {path.relative_to(source).as_posix() for top in ("src", "emulator")
             for path in (source / top).iterdir() if path.is_dir()}
    for room in sorted(rooms ^ below.keys()):
        wrong.append(f"{room} is not among the rooms, or is none")
    for room in sorted(rooms & below.keys()):
        own = room.removeprefix("src/")
        for file in sorted({*(source / room).glob("*.cpp"), *(source / room).glob("*.h")} - {whole}):
            for included in re.findall(r'^#include "([^"]+/[^"]+)"', file.read_text(encoding="utf-8"), re.M):
                if not any(included == name or included.startswith(name + "/") for name in [own, *below[room]]):
                    wrong.append(f"{file.relative_to(source)} includes {included}, which does not lie below it")


{"pictures": pictures, "links": links, "snippets": snippets, "names": names, "removals": removals,
 "layers": layers}[check]()
for text in wrong:
    print("FAILED:", text, file=sys.stderr)
sys.exit(1 if wrong else 0)
