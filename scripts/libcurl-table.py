"""Prints the table of stalled requests: VERSION=FILE each, FILE being the tests' JSON report."""

import json
import sys


def cells(path):
    """Maps each cell's name to its number of stalled requests and of requests."""
    try:
        with open(path, encoding="utf-8") as file:
            report = json.load(file)
    except (OSError, ValueError):
        return {}
    found = {}
    for suite in report["testsuites"]:
        for case in suite["testsuite"]:
            name = case["name"].split("/")[1].replace("_", " ")
            found[name] = (case.get("stalled", "?"), case.get("requests", "?"))
    return found


def main():
    versions = [argument.split("=", 1) for argument in sys.argv[1:]]
    columns = [(version, cells(path)) for version, path in versions]
    names = [name for _, column in columns for name in column]
    print("| stalled requests | " + " | ".join(version for version, _ in columns) + " |")
    print("|---" * (len(columns) + 1) + "|")
    for name in dict.fromkeys(names):
        row = [column.get(name) for _, column in columns]
        print(f"| {name} | " + " | ".join("-" if cell is None else f"{cell[0]} of {cell[1]}" for cell in row) + " |")


main()
