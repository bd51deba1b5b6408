#!/usr/bin/env bash
# Checks the #include "..." lines of qm/ and common/:
#   1. a file in qm/<A>/ includes only headers of its own layer, of a layer
#      below it, or of common/; common/ includes nothing of qm/;
#   2. no cycle among the modules of qm/ (a module is X.h and X.cpp of one
#      folder; X -> Y when X.h or X.cpp includes Y.h);
#   3. every include names an existing file, inside qm/ with its folder
#      ("model/job.h"), of common/ without one ("cm_trace.h").
# Prints each finding and a one-line summary; exits 1 on any finding.
#   scripts/check-layers.sh [repository root]   (default: this repository)
set -euo pipefail
root=${1:-$(dirname "$0")/..}
exec python3 - "$root" <<'PY'
import os
import re
import sys

# The layers of qm/, top to bottom; the names of one line are siblings, and
# neither of two siblings includes the other. A file in qm/<A>/ may include
# headers of qm/<A>/, of every layer below A, and of common/.
LAYERS = [
    ["daemon"],
    ["requests"],
    ["sched", "views"],
    ["jobs"],
    ["model"],
    ["protocol"],
]
# Layers beside the stack, with the layers they may include besides their
# own. Only a layer's own files include it.
BESIDE = {"client": ["protocol"]}

root = os.path.abspath(sys.argv[1])
qm_dir = os.path.join(root, "qm")
common_dir = os.path.join(root, "common")
rank = {name: i for i, line in enumerate(LAYERS) for name in line}
include_re = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def rel(path):
    return os.path.relpath(path, root)


def sources(top):
    found = []
    for folder, dirs, files in os.walk(top):
        dirs.sort()
        found += [os.path.join(folder, f) for f in sorted(files) if f.endswith((".h", ".cpp"))]
    return found


def layer_of(path):
    """The layer folder of a file of qm/, None for a file directly in qm/."""
    parts = os.path.relpath(path, qm_dir).split(os.sep)
    return parts[0] if len(parts) > 1 else None


def resolve(path, name):
    """(file the include names, finding): a file of qm/ finds headers under
    qm/, then common/; a file of common/ only in common/."""
    in_qm = path.startswith(qm_dir + os.sep)
    for base in ([qm_dir, common_dir] if in_qm else [common_dir]):
        target = os.path.normpath(os.path.join(base, name))
        if os.path.isfile(target):
            return target, None
    target = os.path.normpath(os.path.join(qm_dir, name))
    if not in_qm and os.path.isfile(target):
        return target, None  # common/ includes qm/: rule 1 reports it
    local = os.path.normpath(os.path.join(os.path.dirname(path), name))
    if in_qm and os.path.isfile(local):
        return None, f'"{name}" is {rel(local)}: write it with its folder, "{os.path.relpath(local, qm_dir)}"'
    return None, f'"{name}" not found'


def allowed(a, b):
    """None when a file of layer a may include a header of layer b, else why not."""
    if a == b:
        return None
    if a in BESIDE:
        return None if b in BESIDE[a] else f"{a} may include only " + ", ".join([a] + BESIDE[a]) + " and common"
    if b in BESIDE:
        return f"only {b} includes {b}"
    if rank[b] > rank[a]:
        return None
    return f"{a} and {b} are siblings" if rank[b] == rank[a] else f"{b} is above {a}"


findings = []
upward = missing = 0
unknown = sorted({layer_of(p) for p in sources(qm_dir)} - {None} - set(rank) - set(BESIDE))
for folder in unknown:
    findings.append(f"qm/{folder}/: a folder in no layer (add it to LAYERS at the top of scripts/check-layers.sh)")

module_of = {}  # file of qm/ -> module (its path without .h/.cpp)
arrows = set()
for path in sources(qm_dir) + sources(common_dir):
    in_qm = path.startswith(qm_dir + os.sep)
    if in_qm:
        module_of[path] = os.path.splitext(rel(path))[0]
    with open(path, encoding="utf-8", errors="replace") as f:
        lines = f.readlines()
    for number, line in enumerate(lines, 1):
        m = include_re.match(line)
        if not m:
            continue
        where = f"{rel(path)}:{number}"
        target, problem = resolve(path, m.group(1))
        if problem:
            findings.append(f"{where}: {problem}")
            missing += 1
            continue
        if not target.startswith(qm_dir + os.sep):
            continue  # common/ is below everything
        if not in_qm:
            findings.append(f"{where}: common/ includes {rel(target)}")
            upward += 1
            continue
        a, b = layer_of(path), layer_of(target)
        if a is not None and b is not None and a not in unknown and b not in unknown:
            why = allowed(a, b)
            if why:
                findings.append(f'{where}: "{m.group(1)}": {why}')
                upward += 1
        if target.endswith(".h"):
            x, y = os.path.splitext(rel(path))[0], os.path.splitext(rel(target))[0]
            if x != y:
                arrows.add((x, y))

# Cycles: the strongly connected components of the module graph (Tarjan),
# each reported with its modules and one shortest cycle through them.
graph = {m: [] for m in set(module_of.values())}
for x, y in sorted(arrows):
    graph[x].append(y)
index, low, stack, on_stack, components = {}, {}, [], set(), []


def connect(v):
    index[v] = low[v] = len(index)
    stack.append(v)
    on_stack.add(v)
    for w in graph[v]:
        if w not in index:
            connect(w)
            low[v] = min(low[v], low[w])
        elif w in on_stack:
            low[v] = min(low[v], index[w])
    if low[v] == index[v]:
        component = []
        while True:
            w = stack.pop()
            on_stack.discard(w)
            component.append(w)
            if w == v:
                break
        if len(component) > 1:
            components.append(sorted(component))


def shortest_cycle(start, members):
    """Breadth-first from start back to start, inside one component."""
    previous, queue = {start: None}, [start]
    for v in queue:
        for w in graph[v]:
            if w == start:
                path = [v]
                while previous[path[-1]] is not None:
                    path.append(previous[path[-1]])
                return path[::-1] + [start]
            if w in members and w not in previous:
                previous[w] = v
                queue.append(w)
    return [start]


sys.setrecursionlimit(10000)
for v in sorted(graph):
    if v not in index:
        connect(v)
for component in sorted(components, key=lambda c: (-len(c), c)):
    cycle = shortest_cycle(component[0], set(component))
    findings.append(f"cycle among {len(component)} modules: " + " ".join(component))
    findings.append("  for example: " + " -> ".join(cycle))

for finding in findings:
    print(finding)
unlayered = sum(1 for m in graph if os.sep not in os.path.relpath(m, "qm"))
print(f"layers: {len(graph)} modules ({unlayered} in no layer), {len(arrows)} arrows, "
      f"{upward} upward, {len(components)} cycles, {missing} unresolved")
sys.exit(1 if findings else 0)
PY
