#!/usr/bin/env bash
# scripts/check-layers.sh on small trees in the coming layout: a clean tree
# passes; each kind of finding gives its exact lines and a failing exit.
set -euo pipefail
script=$(cd "$(dirname "$0")/../.." && pwd)/scripts/check-layers.sh
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failed=0

put() {  # file, lines: writes the file
  mkdir -p "${1%/*}"
  printf '%s\n' "${@:2}" >"$1"
}
add() {  # file, lines: appends to the file
  mkdir -p "${1%/*}"
  printf '%s\n' "${@:2}" >>"$1"
}

# A tree with every layer, each including only downwards.
tree() {
  local t=$tmp/$1
  put "$t/common/cm_trace.h" '#pragma once'
  put "$t/qm/protocol/wire.h" '#pragma once'
  put "$t/qm/protocol/wire.cpp" '#include "protocol/wire.h"' '#include "cm_trace.h"' '#include <cstdio>'
  put "$t/qm/model/job.h" '#include "protocol/wire.h"'
  put "$t/qm/model/job.cpp" '#include "model/job.h"'
  put "$t/qm/jobs/run.h" '#include "model/job.h"'
  put "$t/qm/jobs/run.cpp" '#include "jobs/run.h"'
  put "$t/qm/sched/pass.h" '#include "jobs/run.h"'
  put "$t/qm/views/list.h" '#include "model/job.h"'
  put "$t/qm/requests/req.h" '#include "sched/pass.h"' '#include "views/list.h"'
  put "$t/qm/daemon/main.h" '#pragma once'
  put "$t/qm/daemon/loop.h" '#pragma once'
  put "$t/qm/daemon/main.cpp" '#include "daemon/main.h"' '#include "requests/req.h"'
  put "$t/qm/client/front.h" '#pragma once'
  put "$t/qm/client/front.cpp" '#include "client/front.h"' '# include "protocol/wire.h"'
}

expect() {  # tree, exit code, output
  local got status=0
  got=$("$script" "$tmp/$1" 2>&1) || status=$?
  if [ "$status" = "$2" ] && [ "$got" = "$3" ]; then
    echo "ok $1"
  else
    echo "FAIL $1: exit $status, expected $2"
    diff <(printf '%s\n' "$3") <(printf '%s\n' "$got") || true
    failed=1
  fi
}

tree clean
expect clean 0 'layers: 9 modules (0 in no layer), 8 arrows, 0 upward, 0 cycles, 0 unresolved'

tree upward
add "$tmp/upward/qm/model/job.cpp" '#include "daemon/loop.h"'
expect upward 1 'qm/model/job.cpp:2: "daemon/loop.h": daemon is above model
layers: 9 modules (0 in no layer), 9 arrows, 1 upward, 0 cycles, 0 unresolved'

tree sideways
add "$tmp/sideways/qm/sched/pass.h" '#include "views/list.h"'
add "$tmp/sideways/qm/views/list.cpp" '#include "sched/pass.h"'
expect sideways 1 'qm/sched/pass.h:2: "views/list.h": sched and views are siblings
qm/views/list.cpp:1: "sched/pass.h": views and sched are siblings
cycle among 2 modules: qm/sched/pass qm/views/list
  for example: qm/sched/pass -> qm/views/list -> qm/sched/pass
layers: 9 modules (0 in no layer), 10 arrows, 2 upward, 1 cycles, 0 unresolved'

tree cycle
put "$tmp/cycle/qm/model/state.h" '#include "model/job.h"'
add "$tmp/cycle/qm/model/job.cpp" '#include "model/state.h"'
expect cycle 1 'cycle among 2 modules: qm/model/job qm/model/state
  for example: qm/model/job -> qm/model/state -> qm/model/job
layers: 10 modules (0 in no layer), 10 arrows, 0 upward, 1 cycles, 0 unresolved'

tree missing
add "$tmp/missing/qm/jobs/run.cpp" '#include "jobs/gone.h"' '#include "run.h"'
expect missing 1 'qm/jobs/run.cpp:2: "jobs/gone.h" not found
qm/jobs/run.cpp:3: "run.h" is qm/jobs/run.h: write it with its folder, "jobs/run.h"
layers: 9 modules (0 in no layer), 8 arrows, 0 upward, 0 cycles, 2 unresolved'

tree beside
add "$tmp/beside/qm/daemon/main.cpp" '#include "client/front.h"'
add "$tmp/beside/qm/client/front.cpp" '#include "model/job.h"'
add "$tmp/beside/common/cm_trace.h" '#include "model/job.h"'
put "$tmp/beside/qm/util/text.h" '#pragma once'
expect beside 1 'qm/util/: a folder in no layer (add it to LAYERS at the top of scripts/check-layers.sh)
qm/client/front.cpp:3: "model/job.h": client may include only client, protocol and common
qm/daemon/main.cpp:3: "client/front.h": only client includes client
common/cm_trace.h:2: common/ includes qm/model/job.h
layers: 10 modules (0 in no layer), 10 arrows, 3 upward, 0 cycles, 0 unresolved'

exit $failed
