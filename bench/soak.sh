#!/usr/bin/env bash
# The soak: the example switch under a PADI storm from many source MACs
# while its configuration, trust and interfaces churn through
# pppoe-plus-cli; memory sampled once a second; one verdict line at the end.
#
#   bench/soak.sh SECONDS [--warmup S] [--pps N] [--macs N] [--build DIR]
#
# The storm is a capture of N PADIs (--macs, 20000), each from its own
# source MAC, replayed in a loop into two subscriber ports at --pps frames
# per second (5000). The churn changes one thing every 0.2 s: Circuit-ID
# formats, tag policy, encapsulation, vendor id, trust of the second
# uplink, interfaces off and on board, statistics shown and reset. Each
# second the sampler asks the switch (world stats) for its resident size,
# the agent's outstanding allocations and the frame buffers under way.
#
# Verdict, over the samples after the warm-up (--warmup, 120 s): resident
# size and allocations stay within 5 % of the first sample, every CLI
# command answers within a second, and the exit report shows no frame
# buffer and no more allocations than after the warm-up (the long-lived
# records: port control blocks, formats, descriptions). The samples
# (samples.csv), the host's output and the CLI's timings stay in the work
# folder the verdict names.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { echo "usage: bench/soak.sh SECONDS [--warmup S] [--pps N] [--macs N] [--build DIR]" >&2; exit 2; }
[ $# -ge 1 ] || usage
run_for=$1
shift
warmup=120
pps=5000
macs=20000
build=build/default
while [ $# -gt 0 ]; do
  case "$1" in
    --warmup) warmup=$2; shift 2 ;;
    --pps) pps=$2; shift 2 ;;
    --macs) macs=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    *) usage ;;
  esac
done
[[ "$run_for" =~ ^[0-9]+$ && "$warmup" =~ ^[0-9]+$ ]] || usage
[ -x "$build/bin/pppoe-plus-switch" ] && [ -x "$build/bin/padi-storm" ] ||
  { echo "soak: build first: cmake --build --preset default --target pppoe-plus-switch pppoe-plus-cli padi-storm" >&2; exit 2; }

work=$(mktemp -d /tmp/pppoe-plus-soak.XXXXXX)
ctl=$work/ctl.sock
cli=("$build/bin/pppoe-plus-cli" --control "$ctl" --socket "$work/yangdb.sock")
"$build/bin/padi-storm" "$work/storm.pcap" "$macs"

"$build/bin/pppoe-plus-switch" --quiet --control "$ctl" \
  --yangdb-socket "$work/yangdb.sock" --yangdb-store "$work/running.xml" \
  --startup-config "$PWD/examples/pppoe-plus.xml" \
  --in "GigabitEthernet0/0/1=$work/storm.pcap" --in "GigabitEthernet0/0/3=$work/storm.pcap" \
  --loop 0 --pps "$pps" >"$work/host.log" 2>&1 &
host=$!
children=("$host")
cleanup() { for pid in "${children[@]}"; do kill "$pid" 2>/dev/null || true; done; }
trap cleanup EXIT
for _ in $(seq 600); do
  grep -q "control socket" "$work/host.log" && break
  kill -0 "$host" 2>/dev/null || { echo "soak: FAIL, the switch did not start (see $work/host.log)"; exit 1; }
  sleep 0.1
done

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }
# Runs a CLI command, recording "elapsed-ms exit-code command" in timings.
timed() {
  local start end rc=0
  start=$(now_ms)
  "${cli[@]}" "$@" >/dev/null 2>>"$work/cli-errors.log" || rc=$?
  end=$(now_ms)
  echo "$((end - start)) $rc $*" >>"$work/timings"
}

churn() {
  local steps=(
    "format cid user-define %sysname/%port/%svlan"
    "trust XGigabitEthernet0/0/2 on"
    "policy keep"
    "world if off GigabitEthernet0/0/2"
    "encapsulation circuit-id"
    "show statistics"
    "format cid extend"
    "vendor-id 2011"
    "world if off XGigabitEthernet0/0/2"
    "policy replace --port GigabitEthernet0/0/3"
    "world if on GigabitEthernet0/0/2"
    "format rid user-define %mac"
    "world if on XGigabitEthernet0/0/2"
    "trust XGigabitEthernet0/0/2 off"
    "encapsulation both"
    "reset-statistics"
    "format cid common"
    "format rid common"
    "policy replace"
    "vendor-id 3561"
    "show policy"
  )
  while :; do
    for step in "${steps[@]}"; do
      # shellcheck disable=SC2086 # a step is its words
      timed $step
      sleep 0.2
    done
  done
}

sample() {
  local t=0 start line
  echo "seconds,rss_kb,allocations,allocated_bytes,frame_buffers,stats_ms" >"$work/samples.csv"
  start=$(now_ms)
  while :; do
    local asked answered out
    asked=$(now_ms)
    out=$("${cli[@]}" world stats 2>/dev/null || true)
    answered=$(now_ms)
    echo "$((answered - asked)) 0 world stats" >>"$work/timings"
    line=$(awk -v t="$t" -v ms="$((answered - asked))" '
      {v[$1]=$2} END {printf "%d,%s,%s,%s,%s,%d\n", t, v["rss-kb"], v["allocations"], v["allocated-bytes"], v["frame-buffers"], ms}' <<<"$out")
    echo "$line" >>"$work/samples.csv"
    t=$(( ($(now_ms) - start + 999) / 1000 ))
    sleep 1
  done
}

: >"$work/timings"
churn &
children+=($!)
sample &
children+=($!)
sleep "$((warmup + run_for))"
kill "${children[@]:1}" 2>/dev/null || true
wait "${children[@]:1}" 2>/dev/null || true
kill -TERM "$host"
wait "$host" || true
children=()

awk -F, -v warmup="$warmup" -v work="$work" -v timings="$work/timings" -v hostlog="$work/host.log" '
  NR == 1 || $1 < warmup || $2 == "" { next }
  {
    n++
    if (n == 1) { rss0 = $2; alloc0 = $3 }
    if (n == 1 || $2 < rssMin) rssMin = $2; if ($2 > rssMax) rssMax = $2
    if (n == 1 || $3 < allocMin) allocMin = $3; if ($3 > allocMax) allocMax = $3
    rssLast = $2; allocLast = $3
  }
  END {
    while ((getline t < timings) > 0) { split(t, f, " "); cmds++; if (f[1] > cliMax) cliMax = f[1]; if (f[2] != 0) cliFail++ }
    while ((getline l < hostlog) > 0) {
      if (l ~ /allocation\(s\) outstanding at/) { split(l, w, " "); exitAlloc = w[2] }
      if (l ~ /frame buffer\(s\) outstanding$/) { split(l, w, " "); exitBuf = w[2] }
      if (l ~ /replayed [0-9]+ frame/) { match(l, /replayed [0-9]+/); frames = substr(l, RSTART + 9, RLENGTH - 9) }
    }
    if (n == 0) { print "soak: FAIL, no sample after the warm-up (see " work ")"; exit 1 }
    rssDev = 100 * ((rssMax - rss0 > rss0 - rssMin) ? rssMax - rss0 : rss0 - rssMin) / rss0
    allocDev = alloc0 > 0 ? 100 * ((allocMax - alloc0 > alloc0 - allocMin) ? allocMax - alloc0 : alloc0 - allocMin) / alloc0 : 0
    fail = ""
    if (rssDev > 5) fail = fail " rss"
    if (allocDev > 5) fail = fail " allocations"
    if (cliMax >= 1000 || cliFail > 0) fail = fail " cli"
    if (exitBuf == "" || exitBuf != 0 || exitAlloc == "" || exitAlloc > alloc0 * 1.05) fail = fail " exit-report"
    printf "soak: %s %d s after %d s warm-up, %s frames: rss %d..%d kB (first %d, %.1f %%), allocations %d..%d (first %d, %.1f %%), cli %d commands, max %d ms, %d failed; exit report %s allocations, %s frame buffers; %s\n",
      fail == "" ? "PASS" : "FAIL (" substr(fail, 2) ")", n, warmup, frames == "" ? "?" : frames,
      rssMin, rssMax, rss0, rssDev, allocMin, allocMax, alloc0, allocDev, cmds, cliMax, cliFail,
      exitAlloc == "" ? "?" : exitAlloc, exitBuf == "" ? "?" : exitBuf, work
    exit fail == "" ? 0 : 1
  }' "$work/samples.csv"
