"""The comments of a public header as a manual.

    header-docs.py doxygen HEADER    the header with its comments as Doxygen reads them
    header-docs.py mdoc HEADER...    a man page of the first one's functions and of the types of all

What the comments have in common: paragraphs; "name: text" and "  name  text" for a parameter or a
field; "Returns" with "  0  text" for results; "Trap:"; " 1. text" for a numbered list. Lines that
belong to one of these are indented, except those of Returns and Trap.
"""
import re
import sys
import textwrap
from pathlib import Path

DATE = "November 22, 2026"
PAGES = ["hcc_list", "hcc_tools", "httpcurlclient", "sendbycurl"]
COMMENT = re.compile(r"^ *?/\*(.*?)\*/\n", re.M | re.S)
TRAILING = re.compile(r"(\S.*?\s)/\* (.*?) \*/$", re.M)
STARTS = [
    ("returns", re.compile(r"(Returns)(?: +(.*))?$")),
    ("trap", re.compile(r"(Trap): +(.*)$")),
    ("item", re.compile(r"([a-z]+[A-Z]\w*(?:, [a-z]+[A-Z]\w*)*): +(.*)$")),
    ("item", re.compile(r"  (\w+)  +(.*)$")),
    ("number", re.compile(r" (\d)\. +(.*)$")),
]


def blocks(comment):
    """[kind, name, text] of each part of a comment; an empty line is a block of its own."""
    found = []
    for line in comment.strip("\n").split("\n"):
        line = re.sub(r"^ *\* ?", "", line).rstrip() if re.match(" +\\*", line) else line.strip()
        start = next(((kind, m) for kind, pattern in STARTS if (m := pattern.match(line))), None)
        if not line:
            found.append(["gap", "", ""])
        elif start:
            found.append([start[0], start[1][1], start[1][2] or ""])
        elif found and (found[-1][0] in ("text", "returns", "trap") or found[-1][0] != "gap" and line[0] == " "):
            found[-1][2] = (found[-1][2] + " " + line.strip()).strip()
        else:
            found.append(["text", "", line.strip()])
    return found


def doxygen(header):
    """The same header; comments behind code belong to what is before them."""
    forms = {"returns": "@returns {2}", "trap": "@attention {2}", "item": "- **{1}**: {2}", "number": "{1}. {2}"}

    def convert(match):
        lines, last = [], "gap"
        for kind, name, text in blocks(match[1]):
            if kind == "text" and last in ("item", "number"):
                lines.append("")
            text = re.sub(r"([<>#%])", r"\\\1", text[:1].upper() + text[1:] if kind == "trap" else text)
            lines.append(forms.get(kind, "{2}").format(kind, name, text))
            last = kind
        mark = "@file\n" if match.start() == 0 else ""
        return "/** " + mark + "\n".join(lines) + "\n*/\n"

    return TRAILING.sub(r"\1/**< \2 */", COMMENT.sub(convert, header))


def escaped(text):
    return re.sub(r"^([.'])", r"\\&\1", text.replace("\\", "\\e"), flags=re.M)


def sentences(text):
    """Each begins a line, as mdoc wants it, and no line is longer than 80 characters."""
    found = re.sub(r"(?<=[a-z0-9)][.?]) +(?=[A-Z\"])", "\n", text).split("\n")
    return escaped("\n".join(textwrap.fill(one, 78, break_long_words=False, break_on_hyphens=False) for one in found))


def mdoc_text(comment):
    """The lines of a comment: items and numbers as a list, all else as paragraphs."""
    lines, open_list = [], False
    for kind, name, text in blocks(comment):
        listed = kind in ("item", "number")
        if open_list and not listed:
            lines.append(".El")
        if listed and not open_list:
            lines.append(".Bl -tag -width Ds")
        open_list = listed
        if listed:
            lines.append(".It " + name)
        elif kind != "gap" and lines and lines[-1] != ".Pp":
            lines.append(".Pp")
        word = "" if listed or kind == "text" else name + (":" if kind == "trap" else "")
        if word or text:
            lines.append(sentences((word + " " + text).strip()))
    return lines + [".El"] * open_list


def synopsis(declaration):
    result, name, arguments = re.match(r"(.*?[ *])(\w+)\((.*)\);", declaration).groups()
    lines = ['.Ft "%s"' % result.strip(), ".Fo " + name]
    return lines + ['.Fa "%s"' % argument.strip() for argument in re.split(r",(?![^(]*\))", arguments)] + [".Fc"]


def parts(header):
    """[comment, what it describes] for all comments but the first, which is about the header."""
    found = COMMENT.split(header)
    code = [re.sub(r"^(#|NVRHTTPCURL_).*\n", "", part, flags=re.M).strip("\n") for part in found[4::2]]
    return found[1], list(zip(found[3::2], code))


def declarations(code):
    """Those of functions, each in one line."""
    return [" ".join(found.split()) for found in re.findall(r"^(?!typedef)\w[^;{}]*\([^;{}]*\);", code, re.M)]


def name_of(declaration):
    return re.search(r"(\w+)\(", declaration)[1]


def listing(macro, names):
    """A line for each name, with commas between them."""
    return ["%s %s ," % (macro, name) for name in names[:-1]] + ["%s %s" % (macro, names[-1])]


def mdoc(headers, name):
    about, described = parts(headers[0])
    functions = [(comment, declarations(code)) for comment, code in described if declarations(code)]
    names = [name_of(one) for _, found in functions for one in found]
    summary = blocks(about)[0][2].split(". ")[0].split(": ")[-1].rstrip(".")
    page = [".Dd " + DATE, ".Dt %s 3" % name.upper(), ".Os", ".Sh NAME"] + listing(".Nm", names)
    page += [".Nd " + re.sub(r"^[A-Z](?=[a-z ])", lambda first: first[0].lower(), summary), ".Sh SYNOPSIS", ".In nvrhttpcurl/%s.h" % name]
    for _, found in functions:
        page += [line for one in found for line in synopsis(one)]
    page += [".Sh DESCRIPTION"] + mdoc_text(about)
    for comment, found in functions:
        page += [".Ss " + ", ".join(map(name_of, found))] + mdoc_text(comment)
    types = ["/*%s*/\n%s" % one for header in headers for one in parts(header)[1] if not declarations(one[1])]
    if types:
        page += [".Sh TYPES", ".Bd -literal", escaped("\n\n".join(types)), ".Ed"]
    see = ["nvrhttp 1"] + [other + " 3" for other in PAGES if other != name]
    return "\n".join(page + [".Sh SEE ALSO"] + listing(".Xr", see)) + "\n"


if __name__ == "__main__":
    texts = [Path(path).read_text() for path in sys.argv[2:]]
    sys.stdout.write(doxygen(texts[0]) if sys.argv[1] == "doxygen" else mdoc(texts, Path(sys.argv[2]).stem))
