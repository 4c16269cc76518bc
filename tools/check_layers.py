#!/usr/bin/env python3
"""Checks that src/ includes run only downward through the layers and that no files include
each other in a loop; given the object directory of a build (--objects DIR, the mldcore
library's CMakeFiles/mldcore.dir/src), also that no file calls a file of a layer above it and no
files call each other in a loop. Prints each offence and exits 1 if there is one.

Layers, top to bottom: daemon (orchestration), proxy, mld, db, iface, kernel, base. A folder may
include its own headers and those of any folder below it."""
import pathlib
import re
import subprocess
import sys

LAYERS = ["daemon", "proxy", "mld", "db", "iface", "kernel", "base"]
ROOT = pathlib.Path(__file__).resolve().parent.parent / "src"


def includes(path):
    return re.findall(r'^#include "([^"]+)"', path.read_text(), re.M)


def symbols(obj, flags):
    out = subprocess.run(["nm", "-C", *flags, str(obj)], capture_output=True, text=True, check=True)
    return [line.split(None, 2)[-1] for line in out.stdout.splitlines() if line.strip()]


def call_offences(objects):
    """Upward calls and call loops between the files whose objects lie below `objects`."""
    defined, calls = {}, {}
    objs = sorted(pathlib.Path(objects).rglob("*.o"))
    objs = [o for o in objs if o.relative_to(objects).parts[0] in LAYERS]  # a stale build's others
    for obj in objs:
        name = obj.relative_to(objects).as_posix().removesuffix(".o").removesuffix(".cc")
        out = subprocess.run(["nm", "-C", "--defined-only", str(obj)], capture_output=True,
                             text=True, check=True).stdout
        for line in out.splitlines():
            parts = line.split(None, 2)
            if len(parts) == 3 and parts[1] in "TW":
                defined.setdefault(parts[2], name)
    for obj in objs:
        name = obj.relative_to(objects).as_posix().removesuffix(".o").removesuffix(".cc")
        calls[name] = {defined[s] for s in symbols(obj, ["-u"]) if defined.get(s, name) != name}
    bad = [f"{a} calls {b}: {b.split('/')[0]} is above {a.split('/')[0]}"
           for a in calls for b in calls[a]
           if LAYERS.index(b.split("/")[0]) < LAYERS.index(a.split("/")[0])]
    # Tarjan's strongly connected components: any with two or more files is a call loop.
    index, low, stack, on, count = {}, {}, [], set(), [0]
    def visit(v):
        index[v] = low[v] = count[0]
        count[0] += 1
        stack.append(v)
        on.add(v)
        for w in calls.get(v, ()):
            if w not in index:
                visit(w)
                low[v] = min(low[v], low[w])
            elif w in on:
                low[v] = min(low[v], index[w])
        if low[v] == index[v]:
            loop = []
            while True:
                w = stack.pop()
                on.discard(w)
                loop.append(w)
                if w == v:
                    break
            if len(loop) > 1:
                bad.append("files that call each other in a loop: " + ", ".join(sorted(loop)))
    for v in list(calls):
        if v not in index:
            visit(v)
    return bad


def main():
    bad = []
    graph = {}
    for path in sorted(ROOT.rglob("*")):
        if path.suffix not in (".h", ".cc"):
            continue
        rel = path.relative_to(ROOT).as_posix()
        if rel.split("/")[0] not in LAYERS:
            bad.append(f"{rel}: {rel.split('/')[0]}/ is no layer")
            continue
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
    if len(sys.argv) == 3 and sys.argv[1] == "--objects":
        bad += call_offences(pathlib.Path(sys.argv[2]))
    for line in bad:
        print(line)
    print(f"layers: {len(graph)} files, {len(bad)} upward or looping includes or calls")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
