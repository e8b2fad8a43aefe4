#!/usr/bin/env python3
"""Draws the documents' pictures: make.py [FOLDER] writes them there, beside this file unless told otherwise."""
import math
import pathlib
import re
import sys
from xml.sax.saxutils import escape

INK, FAINT, PAPER = "#1f2933", "#7b8794", "#ffffff"
FILLS = {  # fill, border
    "plain": ("#f5f7fa", "#7b8794"),
    "question": ("#fff8e1", "#b7791f"),
    "good": ("#e6f4ea", "#2f855a"),
    "bad": ("#fdecea", "#c53030"),
    "step": ("#e8f0fe", "#2b6cb0"),
}
FONT = "DejaVu Sans, Verdana, sans-serif"
LINE = 17


class Picture:
    def __init__(self, width, height, title):
        self.width, self.height, self.title, self.parts = width, height, title, []

    def text(self, x, y, text, size=13, anchor="middle", weight="normal", fill=INK):
        self.parts.append(
            f'<text x="{x:g}" y="{y:g}" font-size="{size}" text-anchor="{anchor}" font-weight="{weight}" '
            f'fill="{fill}">{escape(text)}</text>')

    def box(self, x, y, width, height, lines, kind="plain", corner=6, size=13, faint=False):
        """A box whose upper left corner is at x, y, with centred lines of text, the later ones faint if asked for."""
        fill, border = FILLS[kind]
        self.parts.append(f'<rect x="{x:g}" y="{y:g}" width="{width:g}" height="{height:g}" rx="{corner}" '
                          f'fill="{fill}" stroke="{border}"/>')
        top = y + height / 2 - (len(lines) - 1) * LINE / 2 + 4.5
        for number, line in enumerate(lines):
            self.text(x + width / 2, top + number * LINE, line, size=size, fill=FAINT if faint and number else INK)

    def arrow(self, points, label=None, at=None, anchor="start"):
        path = "M" + " L".join(f"{x:g},{y:g}" for x, y in points)
        self.parts.append(f'<path d="{path}" fill="none" stroke="{INK}" stroke-width="1.3" marker-end="url(#head)"/>')
        if label:
            self.text(at[0], at[1], label, size=12, anchor=anchor, fill=INK, weight="bold")

    def line(self, x1, y1, x2, y2, stroke=FAINT, dash=""):
        dashed = f' stroke-dasharray="{dash}"' if dash else ""
        self.parts.append(f'<line x1="{x1:g}" y1="{y1:g}" x2="{x2:g}" y2="{y2:g}" stroke="{stroke}"{dashed}/>')

    def svg(self):
        return "\n".join([
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{self.width}" height="{self.height}" '
            f'viewBox="0 0 {self.width} {self.height}" font-family="{FONT}">',
            f"<title>{escape(self.title)}</title>",
            '<defs><marker id="head" viewBox="0 0 10 10" refX="9" refY="5" markerWidth="8" markerHeight="8" '
            f'orient="auto"><path d="M0,0 L10,5 L0,10 z" fill="{INK}"/></marker></defs>',
            f'<rect width="{self.width}" height="{self.height}" fill="{PAPER}"/>',
            *self.parts, "</svg>", ""])


def relocation():
    """Where a volume's relocation file goes: the whole decision."""
    p = Picture(1480, 1150, "Where a relocation file goes")
    p.text(740, 32, "Where the relocation file of a volume V goes, and how large it is", size=19, weight="bold")

    p.box(560, 52, 360, 50, ["The volumes of a set, one after the other.", "What did the agent give for this one?"],
          "question", 20)
    heads = [(330, "nothing"), (760, "a size only"), (1045, "a mount point M only"), (1320, "both: M and a size")]
    p.line(330, 128, 1320, 128, INK)
    p.line(740, 102, 740, 128, INK)
    for x, label in heads:
        p.arrow([(x, 128), (x, 168)])
        p.text(x + 8, 154, label, size=13, anchor="start", weight="bold")

    nothing_given(p)
    a_size_only(p)
    a_mount_point_only(p)
    mount_point_and_size(p)
    notes(p)
    what_follows(p)
    return p


def nothing_given(p):
    """No option: on the volume itself, or where the most room is."""
    p.box(175, 170, 310, 68, ["Is V mounted and writable, and would", "its file there be a block or more?", "(see: size on V itself)"],
          "question", 20)
    p.arrow([(330, 238), (330, 300)], "yes", (340, 274))
    p.box(175, 302, 310, 44, ["Is V at least 90 % full?"], "question", 20)
    p.arrow([(330, 346), (330, 408)], "yes", (340, 382))
    p.box(175, 410, 310, 68, ["Has another file system more free room", "than V? (see: the search)"], "question", 20)
    # To the search when V cannot hold it.
    p.arrow([(175, 204), (80, 204), (80, 618)], "no", (128, 198), "middle")
    p.box(20, 620, 190, 68, ["Does the search find", "a file system with any", "free room?"], "question", 20)
    p.arrow([(115, 688), (115, 790)], "no", (125, 742))
    p.arrow([(210, 654), (270, 654), (270, 696)], "yes", (224, 648))
    p.arrow([(330, 478), (330, 696)], "yes", (340, 600))
    # V itself.
    p.arrow([(485, 324), (545, 324), (545, 548)], "no", (498, 318))
    p.arrow([(485, 444), (520, 444), (520, 548)], "no", (491, 438))
    p.box(430, 550, 190, 50, ["Is V snapped already?"], "question", 20)
    p.arrow([(525, 600), (525, 696)], "no", (535, 650))
    p.arrow([(430, 586), (395, 586), (395, 820), (216, 820)], "yes", (401, 579))
    p.box(232, 698, 150, 84, ["There.", "Size: as found", "by the search"], "good")
    p.box(430, 698, 190, 84, ["On V itself.", "Size: see", "size on V itself"], "good")
    p.box(30, 792, 186, 56, ["No place: the snap", "ends with 20"], "bad")


def a_size_only(p):
    """The size alone."""
    p.box(650, 170, 220, 68, ["Is the size more than", "memory can hold?"], "question", 20)
    p.arrow([(760, 238), (760, 300)], "no", (770, 274))
    p.arrow([(650, 204), (634, 204), (634, 820), (668, 820)], "yes", (628, 226), "end")
    p.box(650, 302, 220, 85, ["Is V mounted and writable,", "has more free room than the", "size, and is less than", "90 % full?"], "question", 20)
    p.arrow([(710, 387), (710, 696)], "yes", (680, 540))
    p.arrow([(810, 387), (810, 468)], "no", (820, 432))
    p.box(730, 470, 155, 102, ["Another file", "system with more", "free room than V", "and than the size?"], "question", 20)
    p.arrow([(845, 572), (845, 696)], "yes", (853, 640))
    p.arrow([(760, 572), (760, 790)], "no", (768, 640))
    p.box(650, 698, 95, 70, ["On V itself.", "Size: as", "given"], "good")
    p.box(775, 698, 120, 70, ["The one with", "most room.", "Size: as given"], "good")
    p.box(670, 792, 186, 56, ["No place: the snap", "ends with 20"], "bad")


def a_mount_point_only(p):
    """The mount point alone."""
    p.box(925, 170, 240, 85, ["Is M there, not snapped,", "not frozen, and writable?", "(Any folder will do: its file", "system counts.)"], "question", 20)
    p.arrow([(1045, 255), (1045, 696)], "yes", (1055, 480))
    p.arrow([(925, 212), (908, 212), (908, 820), (945, 820)], "no", (904, 240), "end")
    p.box(925, 698, 240, 84, ["There. Size: a tenth of the smaller of", "M's free room and V's used room,", "at most what memory can hold"], "good",
          size=11.5)
    p.box(947, 792, 196, 56, ["Refused: the snap", "ends with 20"], "bad")


def mount_point_and_size(p):
    """Both options."""
    p.box(1205, 170, 240, 136, ["Is M a mount point, not snapped,", "not frozen, and writable,", "the size below the limit of its", "file system and not more than", "memory can hold, and is there", "so much free room?"],
          "question", 20)
    p.arrow([(1320, 306), (1320, 696)], "yes", (1330, 500))
    p.arrow([(1205, 238), (1186, 238), (1186, 820), (1226, 820)], "no", (1182, 264), "end")
    p.box(1215, 698, 210, 84, ["There.", "Size: as given"], "good")
    p.box(1228, 792, 184, 56, ["Refused: the snap", "ends with 20"], "bad")


def notes(p):
    """What the questions mean."""
    note(p, 20, 872, "Size on V itself", [
        "Less than 512 MiB used: a tenth of the free room, at most 512 MiB.",
        "Else: a tenth of the smaller of free room and used room.",
        "In blocks of V, rounded down; at most what memory can hold.",
    ])
    note(p, 505, 872, "The search", [
        "All mounted file systems on other devices, but none that is snapped,",
        "frozen or not writable. The one with the most free room; FAT only when",
        "it has more than the others, and none of these has 40 GiB. Size: the",
        "smallest of a tenth of its room, a tenth of V, what memory can hold.",
    ])
    note(p, 990, 872, "What memory can hold", [
        "The driver keeps an entry a block in memory. All files of a set share",
        "what is left: (MemFree / 2 + Cached / 2 + AnonPages / 4) in pages of",
        "4 KiB, divided by 12, times 4096 blocks; less what the volumes before",
        "this one took. Nothing left: the snap ends with 20.",
    ])


def what_follows(p):
    """What is done once a place is found."""
    y = 1030
    p.text(20, y - 6, "Then, where a place was found:", size=13, anchor="start", weight="bold")
    steps = [["The driver learns the mapping", "V → file, with the process"],
             ["M/.verrelocarea/ is made,", "and the file in it"],
             ["Its blocks are allocated; zeros on", "xfs and where they cannot be found"],
             ["Next volume. When all are", "placed: the runs are mapped"],
             ["If one fails: the files before it", "are removed; the snap ends with 20"]]
    for number, lines in enumerate(steps):
        x = 20 + number * 290
        p.box(x, y + 8, 262, 54, lines, "bad" if number == 4 else "step")
        if 0 < number < 4:
            p.arrow([(x - 28, y + 35), (x - 2, y + 35)])
    p.text(20, 1130, "Free room: what statfs says is available. The names in the picture: V the volume to be snapped, M a mount point.", size=12, anchor="start", fill=FAINT)


def note(p, x, y, title, lines):
    """A framed text with a title of its own."""
    p.box(x, y, 465, 124, [], "plain")
    p.text(x + 16, y + 22, title, size=13, anchor="start", weight="bold")
    for number, line in enumerate(lines):
        p.text(x + 16, y + 44 + number * 19, line, size=12, anchor="start")


def life_of_a_set():
    """The calls of an agent from top to bottom, the engine's state, and what exists meanwhile."""
    p = Picture(1180, 930, "The life of a snapshot set")
    p.text(590, 32, "The life of a snapshot set", size=19, weight="bold")
    calls = [
        ("creator = GetCreatorFunction()", "engine = creator()"),
        ("StartSnapshotSet", "one set at a time in a process"),
        ("AddToSnapshotSet, SetOption", "once a volume and mount point"),
        ("DoSnapshotSet", "hands out the job, and returns"),
        ("Wait, QueryStatus", "until the job has finished"),
        ("ExposeSnapshotsInSnapshotSet", "shallowest mount first"),
        ("GetSnapshotProperties; the backup", "reads the mounted snapshots"),
        ("UnExposeSnapshotsInSnapshotSet", "deepest mount first"),
        ("DeleteSnapshots", "of the whole set"),
        ("Release", "the last reference"),
    ]
    top, row = 130, 74
    y = {number: top + number * row for number in range(len(calls) + 1)}

    p.text(170, 84, "What the agent calls", size=14, weight="bold")
    for number, (call, remark) in enumerate(calls):
        p.box(30, y[number], 280, 50, [call, remark], "step", faint=True)
        if number:
            p.arrow([(170, y[number - 1] + 50), (170, y[number] - 1)])

    p.text(420, 84, "The engine's state", size=14, weight="bold")
    states = [("Uninitialized", 0, 1, "plain"), ("SnapshotSetStarted", 1, 3, "plain"),
              ("SnapshotSetInProgress", 3, 4, "question"), ("SnapshotSetDone", 4, 8, "good"),
              ("SnapshotSetUnDone", 8, 9, "plain")]
    for name, begin, end, kind in states:
        p.box(340, y[begin] + 25, 180, (end - begin) * row - 6, [name], kind)

    p.text(820, 62, "What exists meanwhile", size=14, weight="bold")
    columns = [("the engine", 0, 9.0), ("the set in progress", 1, 8), ("mappings and", 3, 8), ("the snapshots", 4, 8),
               ("read-only", 5, 7)]
    second = ["", "of the process", "relocation files", "/dev/snapX_Y", "mounts"]
    for number, (name, begin, end) in enumerate(columns):
        x = 560 + number * 124
        p.text(x + 50, 88 if second[number] else 104, name, size=12)
        p.text(x + 50, 104, second[number], size=12)
        p.parts.append(f'<rect x="{x + 36}" y="{y[begin] + 25:g}" width="28" height="{(end - begin) * row:g}" rx="4" '
                       f'fill="#2b6cb0" fill-opacity="{0.35 + number * 0.12:g}"/>')
    for number in range(len(calls)):
        p.line(524, y[number] + 25, 1160, y[number] + 25, "#cbd2d9", "3 4")

    y_job = y[10] + 12
    p.text(30, y_job + 4, "The job, on a thread of its own:", size=13, anchor="start", weight="bold")
    job = [["devices: there,", "named once"], ["not snapped,", "not frozen"], ["memory for", "the tables"],
           ["relocation files:", "mapped, made"], ["their runs", "are mapped"], ["volumes are", "flushed"],
           ["one snap for", "all volumes"]]
    for number, lines in enumerate(job):
        x = 270 + number * 128
        p.box(x, y_job - 26, 112, 48, lines, "question", size=11.5)
        if number:
            p.arrow([(x - 16, y_job - 2), (x - 1, y_job - 2)])
    p.text(30, y_job + 46, "A job that fails undoes its relocation files, frees the process for another set, and leaves the engine "
           "in SnapshotSetDone: release it.", size=12, anchor="start", fill=FAINT)
    return p


SECONDS = {"ns": 1e-9, "µs": 1e-6, "ms": 1e-3, "s": 1}
BYTES = {"GiB": 2**30, "TiB": 2**40}


def making():
    """What making and mapping a relocation file takes, from the table of docs/performance.md."""
    table = (pathlib.Path(__file__).parent.parent / "performance.md").read_text(encoding="utf-8")
    rows = re.findall(r"^\| make and map (\d+) (\w+) on ext4 \| ([\d.]+) (\w+) \| ([\d.]+) (\w+) \|", table, re.M)
    sizes = [float(size) * BYTES[unit] for size, unit, *_ in rows]
    p = Picture(760, 420, "Making and mapping a relocation file on ext4")
    p.text(380, 32, "Making and mapping a relocation file on ext4", size=19, weight="bold")
    left, right, top, bottom = 90, 730, 60, 360
    place_x = lambda size: left + (right - left) * (math.log10(size) - math.log10(sizes[0])) / (
        math.log10(sizes[-1]) - math.log10(sizes[0]))
    place_y = lambda seconds: bottom - (bottom - top) * (math.log10(seconds) + 4) / 5  # 0.1 ms to 10 s
    for power, label in zip(range(-4, 2), ["0.1 ms", "1 ms", "10 ms", "100 ms", "1 s", "10 s"]):
        p.line(left, place_y(10.0**power), right, place_y(10.0**power), "#cbd2d9", "3 4")
        p.text(left - 10, place_y(10.0**power) + 4, label, size=12, anchor="end")
    for (size, unit, *_), bytes_ in zip(rows, sizes):
        p.text(place_x(bytes_), bottom + 22, f"{size} {unit}", size=12)
    curves = [("the library", "#2b6cb0", 2), ("posix_fallocate, fsync and FS_IOC_FIEMAP alone", "#b7791f", 4)]
    for number, (name, colour, column) in enumerate(curves):
        points = [(place_x(bytes_), place_y(float(row[column]) * SECONDS[row[column + 1]]))
                  for row, bytes_ in zip(rows, sizes)]
        p.parts.append(f'<path d="M{" L".join(f"{x:.1f},{y:.1f}" for x, y in points)}" fill="none" '
                       f'stroke="{colour}" stroke-width="2"/>')
        for x, y in points:
            p.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>')
        p.line(left + 20, top + 18 + 20 * number, left + 50, top + 18 + 20 * number, colour)
        p.text(left + 58, top + 22 + 20 * number, name, size=12, anchor="start")
    p.text(380, 405, "Both axes are logarithmic. The time grows with the number of extents, one for 128 MiB at most.", size=12,
           fill=FAINT)
    return p


PICTURES = {"relocation.svg": relocation, "life-of-a-set.svg": life_of_a_set,
            "making.svg": making}


def main():
    folder = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    for name, draw in PICTURES.items():
        (folder / name).write_text(draw().svg(), encoding="utf-8")


if __name__ == "__main__":
    main()
