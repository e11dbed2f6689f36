#!/usr/bin/env bash
# The whole system on loopback in one command: the simulator serves one TCP
# line, one serial line and a weather station from the demo configuration,
# the daemon polls them, and the datagrams it publishes are shown live.
# Usage: ./demo.sh [SECONDS]   (default 90, so that one history tick is seen;
#                               Ctrl-C ends it earlier)
set -euo pipefail
cd "$(dirname "$0")"
source ./scripts/deps.sh
kes_install_deps

seconds=${1:-90}
case "$seconds" in
  ''|*[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;;
esac

cmake -S . -B build >/dev/null
cmake --build build -j2 --target kes_energy kes_bus_sim kes_chart

run=./run/demo
rm -rf "$run"
mkdir -p "$run/data" ./run/dev
cp ./scripts/demo_conf.xml "$run/conf.xml"

sim_pid=""
daemon_pid=""
listen_pid=""
cleanup() {
  trap - EXIT INT TERM
  for pid in $listen_pid $daemon_pid $sim_pid; do
    kill -TERM "$pid" 2>/dev/null || true
  done
  for pid in $listen_pid $daemon_pid $sim_pid; do
    wait "$pid" 2>/dev/null || true
  done
}
trap cleanup EXIT
# Ctrl-C only ends the waiting: the daemon is stopped below as a service manager would.
trap 'echo; echo "== interrupted =="' INT

echo "== simulator on $run/conf.xml (log in $run/sim.log) =="
./build/bin/kes_bus_sim -conf "$run/conf.xml" -hour 11 -weather 5000 > "$run/sim.log" 2>&1 &
sim_pid=$!
for _ in $(seq 50); do
  grep -q "ready" "$run/sim.log" 2>/dev/null && break
  kill -0 "$sim_pid" 2>/dev/null || break
  sleep 0.1
done
cat "$run/sim.log"
grep -q "ready" "$run/sim.log" || { echo "the simulator did not start"; exit 2; }

./build/bin/kes_bus_sim -listen -conf "$run/conf.xml" &
listen_pid=$!
sleep 0.3

echo "== kes_energy -history 1 for $seconds s (log in $run/daemon.log) =="
./build/bin/kes_energy -conf "$run/conf.xml" -dir "$run/data/" -history 1 > "$run/daemon.log" 2>&1 &
daemon_pid=$!

end=$((SECONDS + seconds))
while [ "$SECONDS" -lt "$end" ] && kill -0 "$daemon_pid" 2>/dev/null; do
  sleep 1 || break
done

status=0
if kill -0 "$daemon_pid" 2>/dev/null; then
  kill -TERM "$daemon_pid"
  wait "$daemon_pid" || status=$?
else
  wait "$daemon_pid" || status=$?
fi
daemon_pid=""
echo "== daemon ended with status $status =="
cleanup

echo "== history files in $run/data =="
ls -l "$run/data"
for f in d m y b meteo_c; do
  if [ -f "$run/data/$f" ]; then
    echo "-- $f --"
    head -c 1500 "$run/data/$f"
    echo
  fi
done

echo "== pictures of the run =="
./build/bin/kes_chart -dir "$run/data" -conf "$run/conf.xml" -history 1 -out "$run/pictures"
echo "open file://$PWD/${run#./}/pictures/index.html in a browser"
exit "$status"
