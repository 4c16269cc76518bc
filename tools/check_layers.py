#!/usr/bin/env python3
"""Checks that src/ includes run only downward through the layers and that no files include
each other in a loop. Prints each offending include and exits 1 if there is one.

Layers, top to bottom: daemon (orchestration), proxy, mld, db, iface, kernel, base. A folder may
include its own headers and those of any folder below it."""
import pathlib
import re
import sys

LAYERS = ["daemon", "proxy", "mld", "db", "iface", "kernel", "base"]
ROOT = pathlib.Path(__file__).resolve().parent.parent / "src"


def includes(path):
    return re.findall(r'^#include "([^"]+)"', path.read_text(), re.M)


def main():
    bad = []
    graph = {}
    for path in sorted(ROOT.rglob("*")):
        if path.suffix not in (".h", ".cc"):
            continue
        rel = path.relative_to(ROOT).as_posix()
        graph[rel] = includes(path)
        here = LAYERS.index(rel.split("/")[0])
        for inc in graph[rel]:
            there = LAYERS.index(inc.split("/")[0])
            if there < here:
                bad.append(f"{rel} includes {inc}: {inc.split('/')[0]} is above {rel.split('/')[0]}")
    # Header loops: a header reaching itself through other headers.
    def reach(start):
        seen, todo = set(), list(graph.get(start, []))
        while todo:
            inc = todo.pop()
            if inc == start:
                return True
            if inc not in seen:
                seen.add(inc)
                todo.extend(graph.get(inc, []))
        return False
    bad += [f"{h} includes itself through other headers" for h in graph if h.endswith(".h") and reach(h)]
    for line in bad:
        print(line)
    print(f"layers: {len(graph)} files, {len(bad)} upward or looping includes")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
