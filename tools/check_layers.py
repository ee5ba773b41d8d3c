#!/usr/bin/env python3
"""Checks that the source tree's includes point only down its layers.

Usage: check_layers.py [--cycles] DIR

Reads every '#include "..."' line of the .h and .cpp files under DIR and
fails, naming the file, the line and the include, when a file includes a
header of a higher layer, of a folder that is no layer, or when the modules
(a header and its .cpp) include each other in a cycle, within a layer too.
With --cycles, for a tree that has no layers (tools/), only the cycles.
Prints one line per finding and exits 1, or exits 0 silently.
"""
import os
import re
import sys

# Bottom up. A file may include headers of its own layer and of those below.
# Files directly under SRC_DIR (the entry file) sit above every layer.
LAYERS = ["base", "parent", "router", "model", "service", "sync", "app"]
TOP = len(LAYERS)

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def layer_of(rel):
    folder = rel.split("/", 1)[0] if "/" in rel else ""
    if folder == "":
        return TOP
    return LAYERS.index(folder) if folder in LAYERS else None


def module_of(rel):
    return os.path.splitext(rel)[0]


def read_includes(src):
    """(file, line number, included path) for every quoted include."""
    found = []
    for root, _, files in os.walk(src):
        for name in sorted(files):
            if not name.endswith((".h", ".cpp")):
                continue
            path = os.path.join(root, name)
            rel = os.path.relpath(path, src).replace(os.sep, "/")
            with open(path, encoding="utf-8", errors="replace") as f:
                for number, line in enumerate(f, 1):
                    m = INCLUDE.match(line)
                    if m:
                        found.append((rel, number, m.group(1)))
    return sorted(found)


def layer_findings(includes):
    out = []
    for rel, number, target in includes:
        mine, theirs = layer_of(rel), layer_of(target)
        if mine is None:
            out.append(f"{rel}: not in a layer folder ({', '.join(LAYERS)})")
        elif theirs is None or theirs == TOP:
            out.append(f'{rel}:{number}: includes "{target}", which is in no layer')
        elif theirs > mine:
            out.append(f'{rel}:{number}: includes "{target}": {LAYERS[theirs]} is above '
                       f'{LAYERS[mine]}')
    return sorted(set(out))


def cycle_findings(includes):
    graph = {}
    for rel, _, target in includes:
        a, b = module_of(rel), module_of(target)
        if a != b:
            graph.setdefault(a, set()).add(b)
    out, state, stack = [], {}, []

    def visit(node):
        state[node] = "open"
        stack.append(node)
        for nxt in sorted(graph.get(node, ())):
            if state.get(nxt) == "open":
                cycle = stack[stack.index(nxt):] + [nxt]
                out.append("include cycle: " + " -> ".join(cycle))
            elif nxt not in state:
                visit(nxt)
        stack.pop()
        state[node] = "done"

    for node in sorted(graph):
        if node not in state:
            visit(node)
    return out


def main(argv):
    cycles_only = len(argv) == 3 and argv[1] == "--cycles"
    if len(argv) != 2 + cycles_only or not os.path.isdir(argv[-1]):
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 2
    includes = read_includes(argv[-1])
    findings = ([] if cycles_only else layer_findings(includes)) + cycle_findings(includes)
    for line in findings:
        print(line)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
