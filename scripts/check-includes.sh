#!/bin/sh
# Checks the layering: includes point downwards only (app > common > lib; tools stands on common and lib, and on
# nothing of app but the configuration), every source includes its own header first, and no circle stands
# between the headers or between the modules of a layer.
set -eu
cd "$(dirname "$0")/.."

exec python3 - <<'PYTHON'
import pathlib
import re
import sys

LAYERS = ["lib", "common", "app", "tools"]  # from the ground up
TOOLS_MAY_USE = ["app/cfg.h", "app/plum.h"]  # the configuration and its record
faults = []
headers, modules = {}, {}  # who includes whom: header to header, module to module


def includes(path):
    return re.findall(r'^#include "([^"]+)"', path.read_text(), re.MULTILINE)


def check_file(layer, path):
    own = str(path.with_suffix(""))
    found = includes(path)
    if path.suffix == ".cc" and path.with_suffix(".h").exists() and found[:1] != [own + ".h"]:
        faults.append(f"{path}: does not include its own header first")
    for name in found:
        other = name.split("/")[0]
        if other not in LAYERS or not pathlib.Path(name).exists():
            faults.append(f"{path}: includes {name}, which is in no layer")
        elif LAYERS.index(other) > LAYERS.index(layer):
            faults.append(f"{path}: {layer} includes {name} from above")
        elif layer == "tools" and other == "app" and name not in TOOLS_MAY_USE:
            faults.append(f"{path}: a program of its own includes {name} of the daemon")
        elif other == layer and name != own + ".h":
            modules.setdefault(own, set()).add(name.removesuffix(".h"))
            if path.suffix == ".h":
                headers.setdefault(str(path), set()).add(name)


def find_circle(graph):
    state, trail = {}, []

    def visit(node):
        state[node] = "open"
        trail.append(node)
        for other in sorted(graph.get(node, ())):
            if state.get(other) == "open":
                return trail[trail.index(other):] + [other]
            if other not in state and (circle := visit(other)):
                return circle
        trail.pop()
        state[node] = "done"
        return None

    return next((c for n in sorted(graph) if n not in state and (c := visit(n))), None)


count = 0
for layer in LAYERS:
    for path in sorted(pathlib.Path(layer).rglob("*.[ch]*")):
        if path.suffix not in (".h", ".cc"):
            continue
        count += 1
        check_file(layer, path)
for kind, graph in (("headers", headers), ("modules", modules)):
    if circle := find_circle(graph):
        faults.append(f"circle between {kind}: " + " > ".join(circle))
if faults:
    sys.exit("\n".join(faults))
print(f"includes: {count} files, layers and order hold")
PYTHON
