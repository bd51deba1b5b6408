#!/usr/bin/env bash
# Installs what is missing, builds, and runs the daemon on a self-contained
# instance directory (demo/) with a short demonstration. The daemon keeps
# running afterwards; the last lines say how to stop it. Nothing is written
# outside the repository (no file under /etc).
set -euo pipefail
cd "$(dirname "$0")/.."
repo="$PWD"

scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
if [ ! -x build/qm/kd_qm_main ] || [ ! -x build/qm/kd_qm ]; then
  echo "The daemon kd_qm_main has not landed yet; the common runtime is built and tested by scripts/test.sh."
  exit 0
fi

demo="$repo/demo"
daemon="$repo/build/qm/kd_qm_main"
front="$repo/build/qm/kd_qm"
pidfile="$demo/kd_qm_main.pid"
export KD_INI="$demo/kelda.ini"

# A daemon left running by an earlier demo is stopped first: one instance
# directory, one daemon.
if [ -f "$pidfile" ]; then
  old=$(cat "$pidfile")
  if [ -n "$old" ] && kill -0 "$old" 2>/dev/null &&
     tr '\0' ' ' <"/proc/$old/cmdline" 2>/dev/null | grep -q kd_qm_main; then
    echo "stopping the daemon of an earlier demo (pid $old)"
    "$front" shutdown >/dev/null 2>&1 || true
    for _ in $(seq 50); do kill -0 "$old" 2>/dev/null || break; sleep 0.1; done
    if kill -0 "$old" 2>/dev/null; then kill -TERM "$old" 2>/dev/null || true; sleep 1; fi
    kill -KILL "$old" 2>/dev/null || true
  fi
  rm -f "$pidfile"
fi

# The instance: bootstrap file, kd.ini with every directory, debug.ini.
mkdir -p "$demo"/{ini,log,glbv,workdir/sem,qm/com,bin}
cat >"$demo/kelda.ini" <<EOF
# bootstrap file of the demo instance
KD_INI=$demo/ini/kd.ini
EOF
cat >"$demo/ini/kd.ini" <<EOF
[Pathes]
gv_rw_lgc=$demo/log/
gv_rw_ini=$demo/ini/
gv_rw_glbv=$demo/glbv/
gv_rw_work=$demo/workdir/
gv_rw_qm=$demo/qm/
gv_ro_bin=$demo/bin/
gv_rw_bin=$demo/bin/
EOF
cat >"$demo/ini/debug.ini" <<EOF
KD_QM_MAIN=1
KD_QM=0
EOF

# The daemon in the foreground ("-d"), in a session of its own so that it
# outlives this script; its pid is the daemon's.
started=0
daemon_pid=""
cleanup() {
  if [ "$started" -ne 1 ] && [ -n "$daemon_pid" ]; then
    kill -TERM "$daemon_pid" 2>/dev/null || true
    for _ in $(seq 30); do kill -0 "$daemon_pid" 2>/dev/null || break; sleep 0.1; done
    kill -KILL "$daemon_pid" 2>/dev/null || true
    rm -f "$pidfile"
  fi
}
trap cleanup EXIT

setsid "$daemon" -d >"$demo/log/kd_qm_main.out" 2>&1 </dev/null &
daemon_pid=$!
echo "$daemon_pid" >"$pidfile"

ready=0
for _ in $(seq 100); do
  if ! kill -0 "$daemon_pid" 2>/dev/null; then break; fi
  if [ -p "$demo/qm/com/to_qm_pipe" ]; then ready=1; break; fi
  sleep 0.05
done
if [ "$ready" -ne 1 ]; then
  echo "kd_qm_main did not start; its output:" >&2
  cat "$demo/log/kd_qm_main.out" >&2 || true
  exit 1
fi

echo "kd_qm_main runs as pid $daemon_pid on the instance $demo"
echo
# A small job program in the instance's bin directory: relative
# executables of a submission are found there.
cat >"$demo/bin/hello.sh" <<'EOS'
#!/bin/sh
# Demo job: says hello with its arguments, works a moment, and ends.
echo "hello from job $$: $*" >>"${0%/*}/../log/hello.out"
sleep 2
EOS
chmod 755 "$demo/bin/hello.sh"

run() {
  echo "\$ kd_qm $*"
  set +e
  "$front" "$@"
  local rc=$?
  set -e
  echo "(exit code $rc)"
  echo
  if [ "$rc" -ge 2 ]; then
    echo "the request was not served; the daemon's output is in $demo/log/" >&2
    exit 1
  fi
}
run init demo 2
run submit demo -j first -p 5 hello.sh one
run submit demo -j second -p 0 hello.sh two
run submit demo -j third -T "$(date -d '+1 hour' '+%F_%H:%M')" hello.sh three
run sho demo
run sho/status demo
started=1
cat <<EOF

The daemon keeps running. Talk to it with the front end (kd_qm -h lists the commands):
  export KD_INI=$KD_INI
  $front process_signal
Stop it with:
  KD_INI=$KD_INI $front shutdown
Its trace log and output are in $demo/log/.
EOF
