#!/usr/bin/env bash
# Builds the daemon and runs it for a few seconds on a small example installation,
# then stops it with SIGTERM as a service manager would.
set -euo pipefail
cd "$(dirname "$0")"
source ./scripts/deps.sh
kes_install_deps

cmake -S . -B build >/dev/null
cmake --build build -j2 --target kes_energy

run=./run/demo
mkdir -p "$run/data"
cat > "$run/conf.xml" <<'XML'
<energy>
  <line id="1" address="127.0.0.1:5020">
    <string mid="3" type="2" fid="0" iid="1201"/>
  </line>
</energy>
XML

seconds=${1:-5}
echo "== kes_energy on $run/conf.xml for $seconds s =="
./build/bin/kes_energy -conf "$run/conf.xml" -dir "$run/data" -history 1 &
pid=$!
trap 'kill -TERM $pid 2>/dev/null || true' EXIT INT
sleep "$seconds"
kill -TERM "$pid"
wait "$pid" && status=0 || status=$?
trap - EXIT INT
echo "== daemon ended with status $status; data in $run/data =="
ls -la "$run/data"
exit "$status"
