#!/usr/bin/env bash
# The layering rule of docs/ARCHITECTURE.md: a library file includes headers
# of its own folder or of a folder below it, never above or beside, and no
# two files include each other in a circle (a header and its .cpp count as
# one unit).  Exits non-zero and names each offending include.
set -euo pipefail
cd "$(dirname "$0")/.."
python3 - <<'PY'
import os, re, sys, glob

# A folder may include from the folders listed for it (and from itself).
below = {
    "platform": [],
    "core": ["platform"],
    "codecs": ["core", "platform"],
    "color": ["core", "platform"],
    "process": ["core", "platform"],
    "formats": ["codecs", "color", "process", "core", "platform"],
    "pipeline": ["formats", "codecs", "color", "process", "core", "platform"],
    # display sits beside pipeline: both build on the layers below.
    "display": ["formats", "codecs", "color", "process", "core", "platform"],
}
include = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
files = [f for d in below for f in glob.glob(d + "/*.h") + glob.glob(d + "/*.cpp")]
problems, edges = [], {}
unit = lambda path: os.path.splitext(path)[0]
for f in sorted(files):
    folder = f.split("/")[0]
    for target in include.findall(open(f, encoding="utf-8").read()):
        if "/" not in target:
            if not os.path.exists(os.path.join(folder, target)):
                problems.append(f"{f}: includes \"{target}\" without its folder")
            target = folder + "/" + target
        tfolder = target.split("/")[0]
        if tfolder != folder and tfolder not in below[folder]:
            problems.append(f"{f}: includes {target}, which is not below {folder}/")
        if unit(target) != unit(f):
            edges.setdefault(unit(f), set()).add(unit(target))

# Include cycles between units, by depth-first search.
state = {}
def visit(node, path):
    state[node] = 1
    for nxt in sorted(edges.get(node, ())):
        if state.get(nxt) == 1:
            cycle = path[path.index(nxt):] + [nxt] if nxt in path else [node, nxt]
            problems.append("include cycle: " + " -> ".join(cycle))
        elif nxt not in state:
            visit(nxt, path + [nxt])
    state[node] = 2
for node in sorted(edges):
    if node not in state:
        visit(node, [node])

for p in problems:
    print("check_layers:", p)
if problems:
    sys.exit(1)
print(f"check_layers: {len(files)} files, every include points down, no cycle")
PY
