"""Prints what the library costs, where the cost repeats: one number and its name on each line.

    python3 figures.py WORK PROGRAM NAME=LIBRARY...

WORK is an empty folder, PROGRAM the build's tests/figures/figures, which runs under callgrind, each
LIBRARY a stripped one whose size is printed. Counted is what is executed in the library itself for
one send of 200 bytes or one idle pass of a worker: what libcurl, libc and the platform execute
beneath it depends on the machine.

    python3 figures.py --compare EXPECTED MEASURED

compares two such outputs, and fails where a figure differs by more than 2 %.
"""

import os
import pathlib
import re
import subprocess
import sys

WORKS = {"sync": "a synchronous send", "direct": "a direct send", "async": "an asynchronous send", "idle": "an idle pass"}
COUNT = 100
LIBRARY = "libnvrhttpcurl.so"
ALLOCATORS = {"malloc", "calloc", "realloc", "strdup", "strndup"}
TOLERANCE = 0.02


def profile(work_folder, program, work):
    """The profile of what the program does in its function Counted."""
    out = pathlib.Path(work_folder) / work
    subprocess.run(
        ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", "--zero-before=Counted",
         "--dump-after=Counted", program, work, str(COUNT)],
        check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        env=dict(os.environ, NVRHTTPCURL_LOG_DIR=str(work_folder)))
    return pathlib.Path(f"{out}.1").read_text()


def name_of(names, text):
    """A name in callgrind's compressed form: "(1) name" when it is first used, then "(1)"."""
    number, name = re.fullmatch(r"\((\d+)\)(?: (.*))?", text).groups()
    return names.setdefault(number, name)


def cost_inside(text):
    """Instructions executed in the library, and its calls of allocators."""
    names = {"ob": {}, "fn": {}}
    instructions = allocations = 0
    inside = called = None
    after_call = False
    for line in text.splitlines():
        key, _, value = line.partition("=")
        if key in ("ob", "cob"):
            name = name_of(names["ob"], value)
            inside = LIBRARY in name if key == "ob" else inside
        elif key in ("fn", "cfn"):
            called = name_of(names["fn"], value)
        elif key == "calls":
            after_call = True  # the next line has the cost of what was called
            allocations += int(value.split()[0]) if inside and called in ALLOCATORS else 0
        elif re.match(r"[-+*\d]", line):
            instructions += int(line.split()[1]) if inside and not after_call else 0
            after_call = False
    return round(instructions / COUNT), round(allocations / COUNT)


def text_size(library):
    return int(subprocess.run(["size", library], check=True, capture_output=True, text=True).stdout.split()[6])


def measure(work_folder, program, libraries):
    for work, title in WORKS.items():
        instructions, allocations = cost_inside(profile(work_folder, program, work))
        print(f"{instructions} instructions, {title}")
        print(f"{allocations} allocations, {title}")
    for library in libraries:
        name, path = library.split("=")
        print(f"{text_size(path)} bytes of text, {name}")


def figures_in(path):
    lines = pathlib.Path(path).read_text().splitlines()
    return {name: int(number) for number, name in (line.split(" ", 1) for line in lines)}


def compare(expected_path, measured_path):
    expected, measured = figures_in(expected_path), figures_in(measured_path)
    if expected.keys() != measured.keys():
        sys.exit(f"not the same figures: {sorted(expected.keys() ^ measured.keys())}")
    wrong = [name for name in expected if abs(measured[name] - expected[name]) > TOLERANCE * expected[name]]
    for name in wrong:
        print(f"{name}: {measured[name]}, expected {expected[name]}")
    sys.exit("scripts/check newfigures takes them as the expected ones" if wrong else 0)


if sys.argv[1] == "--compare":
    compare(*sys.argv[2:])
else:
    measure(sys.argv[1], sys.argv[2], sys.argv[3:])
