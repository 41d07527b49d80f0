"""Compares the documents with what they describe.

    docs-agree.py examples            each C and C++ block of a document is an example or a part of one
    docs-agree.py messages LIBRARY    docs/messages.md has the messages of the library, no others
    docs-agree.py options NVRHTTP     man/nvrhttp.1 has the options of each command, the other page the console's
    docs-agree.py platform            docs/porting.md has every call of the platform
"""
import re
import subprocess
import sys
from pathlib import Path

DOCUMENTS = [Path("README.md"), *sorted(Path("docs").glob("*.md"))]


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, input="help\n").stdout


def plain(code):
    """Without indentation: a part of an example starts at the left margin in a document."""
    return "\n".join(line.strip() for line in code.strip().split("\n"))


def examples():
    sources = [plain(path.read_text()) for path in Path("examples").glob("*.c*")]
    for document in DOCUMENTS:
        for block in re.findall(r"^```c(?:pp)?\n(.*?)^```$", document.read_text(), re.M | re.S):
            whole = "int main(" in block
            if not any(plain(block) == source if whole else plain(block) in source for source in sources):
                yield "%s: not in an example:\n%s" % (document, block)


def messages(library):
    strings = output("strings", "-a", library)
    logged = {found.strip() for found in re.findall(r"^%s\[L:%d\](.*)$", strings, re.M)} - {"%s"}
    rows = re.findall(r"^\| (`.*?`) \|", Path("docs/messages.md").read_text().replace("\\|", "\0"), re.M)
    described = {one.replace("\0", "|").strip() for row in rows for one in re.findall(r"`(.*?)`", row)}
    for message in sorted(logged - described):
        yield "docs/messages.md lacks: " + message
    for message in sorted(described - logged):
        if message not in strings:
            yield "the library does not log: " + message


def options(nvrhttp):
    page = Path("man/nvrhttp.1").read_text()
    for command in re.findall(r"^  (\w+) {4}", output(nvrhttp, "--help"), re.M):
        section = re.search(r"^\.Ss %s$(.*?)^\.S" % command, page, re.M | re.S)
        for option in re.findall(r"^  (?:-\w,)?-(-[a-z-]+)", output(nvrhttp, command, "--help"), re.M):
            if not section or (option != "-help" and "Fl " + option not in section[1]):
                yield "man/nvrhttp.1 lacks: %s -%s" % (command, option)
    page = Path("man/nvrhttp-console.1").read_text()
    for command in re.findall(r"^  (\w+)", output(nvrhttp, "console"), re.M):
        if ".It Nm " + command not in page:
            yield "man/nvrhttp-console.1 lacks: " + command


def platform():
    declared = "".join(path.read_text() for path in Path("platform").glob("*.h"))
    for call in re.findall(r"^\w[^(\n]*\b((?:Osp|App|DebugLog)\w+)\(", declared, re.M):
        if "`%s`" % call not in Path("docs/porting.md").read_text():
            yield "docs/porting.md lacks: " + call


if __name__ == "__main__":
    problems = list(globals()[sys.argv[1]](*sys.argv[2:]))
    print("\n".join(problems), end="\n" if problems else "")
    sys.exit(1 if problems else 0)
