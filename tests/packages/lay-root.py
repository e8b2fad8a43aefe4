#!/usr/bin/env python3
"""Lays a Debian from the packages that are installed on this machine; no archive is needed.

    lay-root.py FOLDER (PACKAGE | FILE.deb)...

It holds what every Debian has (the essential and required packages, and apt), the named packages, what the named files
declare to need, and what all these need in turn: nothing else. The packages stand there unpacked, without documentation:
`dpkg --configure -a` inside makes them work. The named files themselves are not unpacked.
"""
import functools
import os
import pathlib
import re
import shutil
import subprocess
import sys

DATABASE = pathlib.Path("/var/lib/dpkg")
DOCUMENTATION = re.compile(r"/usr/share/(doc|doc-base|info|lintian|locale|man)(/|$)")


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


def fields(stanza):
    return dict(re.findall(r"^([\w-]+):[ \t]*(.*)", stanza, re.M))


def needs(control):
    """What a package cannot be without: for each, the names of those that will do."""
    for relation in re.split(r"\s*,\s*", ", ".join(control.get(field, "") for field in ("Pre-Depends", "Depends"))):
        if relation:
            yield [re.split(r"[\s:(]", name)[0] for name in re.split(r"\s*\|\s*", relation)]


def closure(installed, wanted, brought):
    """The names of the packages that a list of needs leads to. What is `brought` will be there without."""
    providers = {name: [name] for name in installed}
    for name, control in installed.items():
        for provided in re.split(r"\s*,\s*", control.get("Provides", "")):
            providers.setdefault(provided.split(" ")[0], []).append(name)
    chosen, unmet = set(), list(wanted)
    while unmet:
        alternatives = unmet.pop()
        found = [provider for name in alternatives for provider in providers.get(name, [])]
        if chosen.intersection(found) or brought.intersection(alternatives):
            continue
        if not found:
            sys.exit(f"not installed on this machine: {' | '.join(alternatives)}")
        chosen.add(found[0])
        unmet.extend(needs(installed[found[0]]))
    return chosen


def choose(installed, named):
    wanted = [["apt"]] + [[name] for name, control in installed.items()
                          if control.get("Essential") == "yes" or control.get("Priority") == "required"]
    brought = set()
    for name in named:
        if name.endswith(".deb"):
            control = fields(output("dpkg-deb", "-f", name))
            wanted.extend(needs(control))
            brought.add(control["Package"])
        else:
            wanted.append([name])
    return closure(installed, wanted, brought)


def lay_database(folder, stanzas, info):
    """What dpkg knows of the packages, as if it had unpacked them just now."""
    for part in ("info", "triggers", "updates"):
        (folder / part).mkdir(parents=True)
    status = [re.sub(r"^Status: .*$", "Status: install ok unpacked", stanza, flags=re.M) for stanza in stanzas.values()]
    (folder / "status").write_text("\n\n".join(status) + "\n", encoding="utf-8")
    shutil.copy2(DATABASE / "diversions", folder)
    for files in info.values():
        for file in files:
            shutil.copy2(file, folder / "info")
    shutil.copy2(DATABASE / "info" / "format", folder / "info")
    # A line ends with the name of the package that waits for the trigger.
    for file in (DATABASE / "triggers").iterdir():
        waiting = [line for line in file.read_text(encoding="utf-8").splitlines(keepends=True)
                   if re.split(r"[:/]", line.split()[-1])[0] in stanzas]
        if waiting:
            (folder / "triggers" / file.name).write_text("".join(waiting), encoding="utf-8")


def files_of(info):
    """The paths of the packages' files. None leads over a link, such as /bin: both are told as they are."""
    lines = (DATABASE / "diversions").read_text(encoding="utf-8").splitlines()
    diverted = {path: (to, by) for path, to, by in zip(lines[::3], lines[1::3], lines[2::3])}
    paths = set()
    for package, files in info.items():
        for file in files:
            if file.suffix == ".list":
                for path in file.read_text(encoding="utf-8").splitlines():
                    to, by = diverted.get(path, (path, package))
                    paths.add(path if by == package else to)
    paths = {path for path in paths if path != "/." and not DOCUMENTATION.match(path)}
    missing = {path for path in paths if not os.path.lexists(path)}
    # /etc is the administrator's, who may have removed any of it.
    lost = sorted(path for path in missing if not path.startswith("/etc/"))
    if lost:
        sys.exit(f"files of installed packages are missing: {', '.join(lost[:5])}")
    real_folder = functools.cache(os.path.realpath)
    return sorted({os.path.join(real_folder(os.path.dirname(path)), os.path.basename(path)) for path in paths - missing})


def main(folder, *named):
    native = output("dpkg", "--print-architecture")
    installed, stanzas = {}, {}
    for stanza in (DATABASE / "status").read_text(encoding="utf-8").strip().split("\n\n"):
        control = fields(stanza)
        if control["Status"].endswith(" ok installed") and control["Architecture"] in (native, "all"):
            installed[control["Package"]], stanzas[control["Package"]] = control, stanza
    packages = choose(installed, named)

    info = {package: [] for package in sorted(packages)}
    for file in (DATABASE / "info").iterdir():
        package, _, architecture = file.stem.partition(":")
        if package in packages and architecture in ("", native):
            info[package].append(file)
    lay_database(folder / DATABASE.relative_to("/"), {package: stanzas[package] for package in info}, info)

    copy = ["tar", "--numeric-owner"]
    read = subprocess.Popen([*copy, "-C", "/", "-c", "--null", "--verbatim-files-from", "--no-recursion", "-T", "-"],
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    write = subprocess.Popen([*copy, "-C", folder, "-x", "-p"], stdin=read.stdout)
    read.stdin.write("\0".join("." + path for path in files_of(info)).encode())
    read.stdin.close()
    read.stdout.close()
    if read.wait() != 0 or write.wait() != 0:
        sys.exit("the packages' files cannot be copied")
    print(f"{len(packages)} packages")


main(pathlib.Path(sys.argv[1]), *sys.argv[2:])
