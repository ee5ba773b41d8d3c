#!/usr/bin/env python3
"""A sampled mutation run: how many small faults in src/ the suite notices.

Usage: mutation_sample.py [--samples N] [--seed S] [--work DIR] [--list] [--src DIR]

Finds every place in the .cpp and .h files under --src (default src/) where
one change makes a plausible fault: a comparison turned to its neighbour
("<" and "<=", ">" and ">=", "==" and "!="), "&&" and "||" swapped, "+" and
"-" swapped, an integer constant changed, "true" and "false" swapped.
Comments, string and character literals and preprocessor lines are left
alone; "<" and ">" count only with a blank on each side, so template
brackets and shifts are not taken. A constant below 16 moves by one (1 to
0), a larger one doubles.

With --list it prints the places and stops. Otherwise it copies the working
tree (the files git tracks or would, as they are now) into --work (default build/mutation), draws --samples places with
--seed, and for each one builds the copy with that single change and runs
the suite there (the field-kit tests left out: they test packaging, not
src/): the quick tests first, stopping at the first failure, then the
minutes-long ones (ctest label "long") only if the quick ones all pass. A mutant the suite fails on is "killed"; one that passes "survived";
one that does not compile counts in neither. Prints one line per mutant and
a summary; exits 0 whatever the counts, as it reports, it does not gate.
"""
import argparse
import os
import random
import re
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

SWAPS = {"<=": "<", "<": "<=", ">=": ">", ">": ">=", "==": "!=", "!=": "==",
         "&&": "||", "||": "&&", "+": "-", "-": "+", "true": "false", "false": "true"}
OPERATOR = re.compile(r"(?<= )(<=|>=|==|!=|&&|\|\||<|>|\+|-)(?= )|\b(true|false)\b|"
                      r"(?<![\w.'])(\d[\d']*)(?![\w.'])")


def quote_opens_literal(line, i):
    """Whether the ' at i opens a character literal (u8'x', L'x') rather than
    separating digits."""
    start = i
    while start > 0 and (line[start - 1].isalnum() or line[start - 1] == "'"):
        start -= 1
    return not line[start].isdigit()


def masked(line):
    """The line with comments cut and the insides of literals blanked."""
    out, quote, i = [], None, 0
    while i < len(line):
        c = line[i]
        if quote:
            if c == "\\":
                out.append("  ")
                i += 2
                continue
            if c == quote:
                quote = None
                out.append(c)
            else:
                out.append(" ")
        elif c == "'" and i > 0 and line[i - 1].isalnum() and not quote_opens_literal(line, i):
            out.append(c)  # a digit separator, as in 1'000
        elif c in "\"'":
            quote = c
            out.append(c)
        elif line.startswith("//", i):
            break
        else:
            out.append(c)
        i += 1
    return "".join(out)


def sites(src):
    """(relative path, line number, column, original, replacement) per place."""
    found = []
    for root, _, files in os.walk(src):
        for name in sorted(files):
            if not name.endswith((".cpp", ".h")):
                continue
            path = os.path.join(root, name)
            rel = os.path.relpath(path, src)
            in_block = False  # inside a /* */ comment
            with open(path, encoding="utf-8") as f:
                for number, line in enumerate(f, 1):
                    text = masked(line.rstrip("\n"))
                    if in_block or text.lstrip().startswith("/*"):
                        in_block = "*/" not in text
                        continue
                    if text.lstrip().startswith("#"):
                        continue
                    for m in OPERATOR.finditer(text):
                        original = m.group(0)
                        if m.group(3):
                            value = int(original.replace("'", ""))
                            # Small counts move by one; times and sizes double,
                            # since a microsecond more no test could see.
                            replacement = str(0 if value == 1 else value + 1 if value < 16
                                              else value * 2)
                        else:
                            replacement = SWAPS[original]
                        found.append((rel, number, m.start(), original, replacement))
    return sorted(found)


def run(command, cwd, timeout):
    try:
        return subprocess.run(command, cwd=cwd, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=timeout).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def write_with_line(path, lines, number, text):
    """Writes lines to path with line number (from 1) replaced by text."""
    with open(path, "w", encoding="utf-8") as f:
        f.writelines(lines[:number - 1] + [text] + lines[number:])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--samples", type=int, default=30)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "mutation"))
    parser.add_argument("--src", default=os.path.join(ROOT, "src"))
    parser.add_argument("--list", action="store_true")
    args = parser.parse_args()

    places = sites(args.src)
    if args.list:
        for rel, number, column, original, replacement in places:
            print(f"{rel}:{number}:{column + 1}: {original} -> {replacement}")
        return 0

    tree, build = os.path.join(args.work, "tree"), os.path.join(args.work, "build")
    tracked = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                             cwd=ROOT, check=True,
                             capture_output=True).stdout.decode().split("\0")
    shutil.rmtree(tree, ignore_errors=True)
    for rel in filter(lambda rel: os.path.isfile(os.path.join(ROOT, rel)), tracked):
        os.makedirs(os.path.dirname(os.path.join(tree, rel)), exist_ok=True)
        # New times on purpose: the build directory outlives the copy, and an
        # object built from the last mutant of an earlier run must not look
        # newer than its restored source.
        shutil.copy(os.path.join(ROOT, rel), os.path.join(tree, rel))
    configure = ["cmake", "-S", tree, "-B", build, "-DCMAKE_BUILD_TYPE=Debug", "-DZEPH_WERROR=OFF"]
    compile_ = ["cmake", "--build", build, "-j2"]
    # The quick tests first, stopping at the first failure, so that most
    # mutants are settled in a minute; the minutes-long ones only for the
    # mutants that pass the rest.
    quick = ["ctest", "--test-dir", build, "-j2", "--timeout", "120", "-E", "FieldKit", "-LE", "long",
             "--stop-on-failure"]
    long_ = ["ctest", "--test-dir", build, "-j2", "-L", "long"]
    test = lambda: run(quick, tree, 1800) and run(long_, tree, 1800)  # noqa: E731
    if not (run(configure, tree, 600) and run(compile_, tree, 1800) and test()):
        print(f"the unchanged tree does not build or pass its tests: see {build}", file=sys.stderr)
        return 1

    chosen = random.Random(args.seed).sample(places, min(args.samples, len(places)))
    killed = survived = broken = 0
    for rel, number, column, original, replacement in sorted(chosen):
        # The places are relative to --src; the copy mirrors the checkout.
        shown = os.path.relpath(os.path.join(args.src, rel), ROOT)
        path = os.path.join(tree, shown)
        with open(path, encoding="utf-8") as f:
            lines = f.readlines()
        kept = lines[number - 1]
        write_with_line(path, lines, number, kept[:column] + replacement + kept[column + len(original):])
        if not run(compile_, tree, 1800):
            verdict, broken = "no build", broken + 1
        elif test():
            verdict, survived = "SURVIVED", survived + 1
        else:
            verdict, killed = "killed", killed + 1
        write_with_line(path, lines, number, kept)
        print(f"{verdict:9} {shown}:{number}:{column + 1}: {kept.strip()}  [{original} -> {replacement}]",
              flush=True)
    print(f"killed {killed} of {killed + survived} mutants that built "
          f"({len(chosen)} drawn from {len(places)} places, seed {args.seed}; {broken} did not build)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
