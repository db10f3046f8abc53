#!/usr/bin/env python3
"""Checks that no subsystem of the library includes a higher layer.

Usage: check_layers.py LAYERS SRC_DIR PUBLIC_INCLUDE_DIR

LAYERS lists one subsystem per line, lowest first, with the subsystems it
uses ("camera: geometry image utils"); src/CMakeLists.txt writes it. A file
belongs to the subsystem of its first folder below SRC_DIR (sources and
private headers) or PUBLIC_INCLUDE_DIR (public headers, include/orbivane/).
It may include its own subsystem and whatever its subsystem uses, directly or
through another used subsystem; "orbivane/export.h" is everyone's. The
umbrella header orbivane/calibration.h is above every layer.

Prints one line per offending include ("file:line: camera includes
orbivane/rendering/panorama_renderer.h (rendering is not below camera)") and
exits 1 when there is any; exits 2 for an unknown subsystem or a bad LAYERS.
"""
import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
EVERYONE = {"orbivane/export.h"}
ABOVE_ALL = {"calibration.h"}


def read_layers(path):
    uses = {}
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.split("#", 1)[0].strip()
            if not line:
                continue
            name, sep, rest = line.partition(":")
            name = name.strip()
            if not sep or not name:
                raise ValueError(f"{path}:{number}: expected 'subsystem: used subsystems'")
            for used in rest.split():
                if used not in uses:
                    raise ValueError(f"{path}:{number}: {name} uses {used}, which is not declared before it")
            uses[name] = set(rest.split())
    return uses


def closure(uses):
    """Every subsystem each one may include: itself and what it uses, transitively."""
    reach = {}
    for name in uses:  # in declaration order: the used ones are done already
        allowed = {name}
        for used in uses[name]:
            allowed |= reach[used]
        reach[name] = allowed
    return reach


def subsystem_of_include(included, known):
    parts = included.split("/")
    if parts[0] == "orbivane" and len(parts) > 2:
        return parts[1]
    if len(parts) > 1 and parts[0] in known:
        return parts[0]
    return None  # a header of the same folder, or outside the library


def check(layers, src_dir, public_dir):
    uses = read_layers(layers)
    reach = closure(uses)
    problems = []
    for root_dir in (src_dir, public_dir):
        for folder, _, files in os.walk(root_dir):
            for file_name in sorted(files):
                if not file_name.endswith((".h", ".cpp")):
                    continue
                path = os.path.join(folder, file_name)
                relative = os.path.relpath(path, root_dir).split(os.sep)
                if len(relative) == 1:
                    if relative[0] in ABOVE_ALL or relative[0] == "export.h":
                        continue
                    problems.append(f"{path}: not in a subsystem's folder")
                    continue
                owner = relative[0]
                if owner not in uses:
                    problems.append(f"{path}: {owner} is not a declared subsystem")
                    continue
                with open(path, encoding="utf-8", errors="replace") as f:
                    for number, line in enumerate(f, 1):
                        m = INCLUDE.match(line)
                        if not m or m.group(1) in EVERYONE:
                            continue
                        target = subsystem_of_include(m.group(1), uses)
                        if target is None:
                            continue
                        if target not in uses:
                            problems.append(f"{path}:{number}: {owner} includes {m.group(1)} "
                                            f"({target} is not a declared subsystem)")
                        elif target not in reach[owner]:
                            problems.append(f"{path}:{number}: {owner} includes {m.group(1)} "
                                            f"({target} is not below {owner})")
    return problems


def main(argv):
    if len(argv) != 4:
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 2
    try:
        problems = check(argv[1], argv[2], argv[3])
    except (OSError, ValueError) as e:
        print(f"check_layers: {e}", file=sys.stderr)
        return 2
    for p in problems:
        print(p, file=sys.stderr)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
