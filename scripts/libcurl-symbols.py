"""Checks that only functions and names of libcurl 7.66.0 and older are used.

    python3 libcurl-symbols.py MANUAL FUNCTIONS SOURCE...

MANUAL is a folder with libcurl's man pages, which name the version that introduced each function
and each name; FUNCTIONS a file with the functions that our programs import. A name that a file
asks for with #ifdef may be newer.
"""

import gzip
import pathlib
import re
import sys

OLDEST = (7, 66, 0)


def version_of(text):
    numbers = [int(number) for number in text.split(".")]
    return tuple(numbers + [0] * (3 - len(numbers)))


def introduced_names(manual):
    page = gzip.open(manual / "libcurl-symbols.3.gz", "rt").read()
    return {name: version_of(number) for name, number in re.findall(r"^\.IP (\w+)\nIntroduced in ([\d.]+)$", page, re.M)}


def introduced_function(manual, name):
    page = gzip.open(manual / f"{name}.3.gz", "rt").read()
    section = re.search(r"^\.SH AVAILABILITY\n(.*?)^\.SH", page, re.M | re.S).group(1)
    return version_of("7.1") if section.startswith("Always") else version_of(re.search(r"7[\d.]*\d", section).group())


def used_names(sources):
    used = set()
    for source in sources:
        text = pathlib.Path(source).read_text()
        used |= set(re.findall(r"\bCURL[A-Z]*_[A-Z0-9_]+\b", text)) - set(re.findall(r"^#ifdef (\w+)", text, re.M))
    return used


def main(manual, functions, sources):
    manual = pathlib.Path(manual)
    known = introduced_names(manual)
    # What is not in the table is no name of libcurl: the compiler knows those that are.
    used = {name: known[name] for name in used_names(sources) if name in known}
    used.update((name, introduced_function(manual, name)) for name in pathlib.Path(functions).read_text().split())
    too_new = sorted(name for name, version in used.items() if version > OLDEST)
    for name in too_new:
        print(f"{name} is of libcurl {'.'.join(map(str, used[name]))}")
    newest = max(used, key=used.get)
    print(f"{len(used)} functions and names of libcurl, the newest {newest} of {'.'.join(map(str, used[newest]))}")
    return 1 if too_new or not used else 0


sys.exit(main(sys.argv[1], sys.argv[2], sys.argv[3:]))
