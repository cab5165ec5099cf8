#!/usr/bin/env bash
# The soak: the example switch under a PADI storm from many source MACs
# while its configuration, trust and interfaces churn through
# pppoe-plus-cli; memory sampled once a second; one verdict line at the end.
#
#   bench/soak.sh SECONDS [--warmup S] [--pps N] [--macs N] [--live | --replay] [--prefix P] [--build DIR]
#
# The storm: N PADIs per second (--pps, 5000), each from one of --macs
# (20000) source MACs in turn, into two subscriber ports. --live (the
# default when run as root) sends them with padi-flood from a subscriber's
# network namespace over veths bound to the switch's ports; the switch runs
# in a namespace of its own, the concentrator's uplink in a third, where
# padi-flood counts the PADIs that arrive with the agent's tag. --replay
# loops a capture of such PADIs (padi-storm) into the ports instead. The
# namespaces and veths carry the prefix --prefix (psk, at most 7 characters).
#
# The churn changes one thing every 0.2 s: Circuit-ID formats, tag policy,
# encapsulation, vendor id, trust of the second uplink, interfaces off and
# on board, statistics shown and reset. Each second the sampler asks the
# switch (world stats) for its resident size, the agent's outstanding
# allocations and the frame buffers under way.
#
# Verdict, over the samples after the warm-up (--warmup, 120 s): resident
# size never goes more than 5 % above where the warm-up ended (the most of
# its last 30 s, a few churn cycles, and of the first sample after it); the
# agent's allocations, taken by their floor per minute (a frame under way
# holds a scratch block for a moment), never more than 5 % above the first
# minute's; every CLI command answers within a second; and the exit report
# shows no frame buffer and no more allocations than that first floor (the
# long-lived records: port control blocks, formats, descriptions). The samples
# (samples.csv), the host's output and the CLI's timings stay in the work
# folder the verdict names.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

usage() {
  echo "usage: bench/soak.sh SECONDS [--warmup S] [--pps N] [--macs N] [--live | --replay] [--prefix P] [--build DIR]" >&2
  exit 2
}
[ $# -ge 1 ] || usage
run_for=$1
shift
warmup=120
pps=5000
macs=20000
build=build/default
P=psk
mode=""
while [ $# -gt 0 ]; do
  case "$1" in
    --warmup) warmup=$2; shift 2 ;;
    --pps) pps=$2; shift 2 ;;
    --macs) macs=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --prefix) P=$2; shift 2 ;;
    --live) mode=live; shift ;;
    --replay) mode=replay; shift ;;
    *) usage ;;
  esac
done
[[ "$run_for" =~ ^[0-9]+$ && "$warmup" =~ ^[0-9]+$ && "$pps" =~ ^[0-9]+$ && ${#P} -le 7 ]] || usage
[ -n "$mode" ] || { [ "$(id -u)" -eq 0 ] && command -v ip >/dev/null && mode=live || mode=replay; }
bin="$root/$build/bin"
for program in pppoe-plus-switch pppoe-plus-cli $([ "$mode" = live ] && echo padi-flood || echo padi-storm); do
  [ -x "$bin/$program" ] || { echo "soak: $bin/$program is missing: build it first" >&2; exit 2; }
done
[ "$mode" = replay ] || [ "$(id -u)" -eq 0 ] || { echo "soak: --live needs root" >&2; exit 2; }

work=$(mktemp -d /tmp/pppoe-plus-soak.XXXXXX)
state=$work
namespaces=("$P-sub" "$P-mid" "$P-ac")
source scripts/lib/netns.sh
ctl=$work/ctl.sock
cli=("$bin/pppoe-plus-cli" --control "$ctl" --socket "$work/yangdb.sock")
switch_args=(--quiet --control "$ctl" --yangdb-socket "$work/yangdb.sock" --yangdb-store "$work/running.xml"
             --startup-config "$root/examples/pppoe-plus.xml")
children=()
cleanup() {
  for pid in "${children[@]}"; do kill "$pid" 2>/dev/null || true; done
  if [ "$mode" = live ]; then remove_namespaces; fi
}
trap cleanup EXIT
if [ "$mode" = live ]; then
  remove_namespaces
  make_namespaces
  veth "$P-s1" "$P-sub" "$P-m1" "$P-mid"
  veth "$P-s3" "$P-sub" "$P-m3" "$P-mid"
  veth "$P-a" "$P-ac" "$P-ma" "$P-mid"
  start_in "$P-mid" switch "$bin/pppoe-plus-switch" "${switch_args[@]}" --netdev "GigabitEthernet0/0/1=$P-m1" \
    --netdev "GigabitEthernet0/0/3=$P-m3" --netdev "XGigabitEthernet0/0/1=$P-ma"
else
  "$bin/padi-storm" "$work/storm.pcap" "$macs"
  "$bin/pppoe-plus-switch" "${switch_args[@]}" --in "GigabitEthernet0/0/1=$work/storm.pcap" \
    --in "GigabitEthernet0/0/3=$work/storm.pcap" --loop 0 --pps "$pps" >"$work/switch.log" 2>&1 &
  echo $! >"$work/switch.pid"
  children+=("$(cat "$work/switch.pid")")
fi
wait_for_line switch "$work/switch.log" "control socket" 60 ||
  { echo "soak: FAIL, the switch did not start (see $work/switch.log)"; exit 1; }
if [ "$mode" = live ]; then
  # Two senders (each port in its own VLAN), half the rate each; the
  # counter on the concentrator's side runs to the end.
  start_in "$P-ac" counter "$bin/padi-flood" count --netdev "$P-a" --seconds "$((warmup + run_for + 2))" --vlan 100
  for port in 1 3; do
    start_in "$P-sub" "sender$port" "$bin/padi-flood" send --netdev "$P-s$port" --seconds "$((warmup + run_for))" \
      --rate "$((pps / 2))" --sources "$macs"
  done
fi

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }
began=$(now_ms)
# Runs a CLI command, recording "elapsed-ms exit-code started-at-ms command" in timings.
timed() {
  local start end rc=0
  start=$(now_ms)
  "${cli[@]}" "$@" >/dev/null 2>>"$work/cli-errors.log" || rc=$?
  end=$(now_ms)
  echo "$((end - start)) $rc $((start - began)) $*" >>"$work/timings"
}
# CPU time (user + system) of a process, in clock ticks.
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat" 2>/dev/null || echo 0; }
ticks_per_s=$(getconf CLK_TCK)

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
  local t=0 start line switch ticks lastTicks lastMs
  echo "seconds,rss_kb,allocations,allocated_bytes,frame_buffers,stats_ms,switch_cpu_pct" >"$work/samples.csv"
  start=$(now_ms)
  switch=$(cat "$work/switch.pid")
  lastTicks=$(cpu_ticks "$switch")
  lastMs=$start
  while :; do
    local asked answered out cpu
    asked=$(now_ms)
    out=$("${cli[@]}" world stats 2>/dev/null || true)
    answered=$(now_ms)
    echo "$((answered - asked)) 0 $((asked - began)) world stats" >>"$work/timings"
    ticks=$(cpu_ticks "$switch")
    cpu=$(( (ticks - lastTicks) * 100000 / ticks_per_s / (answered - lastMs + 1) ))
    lastTicks=$ticks
    lastMs=$answered
    line=$(awk -v t="$t" -v ms="$((answered - asked))" -v cpu="$cpu" '
      {v[$1]=$2} END {printf "%d,%s,%s,%s,%s,%d,%d\n", t, v["rss-kb"], v["allocations"], v["allocated-bytes"], v["frame-buffers"], ms, cpu}' <<<"$out")
    echo "$line" >>"$work/samples.csv"
    t=$(( ($(now_ms) - start + 999) / 1000 ))
    sleep 1
  done
}

: >"$work/timings"
churn &
churner=$!
sample &
sampler=$!
children+=("$churner" "$sampler")
sleep "$((warmup + run_for))"
kill "$churner" "$sampler" 2>/dev/null || true
wait "$churner" "$sampler" 2>/dev/null || true
if [ "$mode" = live ]; then
  stop_recorded "$work/switch.pid"
  sleep 2
  for name in sender1 sender3 counter; do stop_recorded "$work/$name.pid"; done
  remove_namespaces
else
  kill -TERM "$(cat "$work/switch.pid")"
  wait "$(cat "$work/switch.pid")" || true
fi
children=()
sent=$(cat "$work"/sender*.log 2>/dev/null | sed -n 's/.*sent=\([0-9]*\).*/\1/p' | awk '{n += $1} END {if (NR) print n}' || true)
reached=$(sed -n 's/.*padi=\([0-9]*\) vendor=\([0-9]*\).*/\1 (\2 tagged)/p' "$work/counter.log" 2>/dev/null || true)

load=$(cut -d' ' -f1-3 /proc/loadavg)
awk -F, -v warmup="$warmup" -v work="$work" -v load="$load" -v cpus="$(nproc)" -v timings="$work/timings" -v hostlog="$work/switch.log" \
    -v mode="$mode" -v sent="${sent:-}" -v reached="${reached:-}" '
  NR == 1 || $2 == "" { next }
  # The reference: the most of the warm-up'"'"'s last 30 s (a few churn
  # cycles) and of the first sample after it. Flat: nothing after the
  # warm-up goes more than 5 % above it.
  $1 >= warmup - 30 && $1 <= warmup { if ($2 > rssRef) rssRef = $2 }
  $1 < warmup { next }
  {
    n++
    if (n == 1) { if ($2 > rssRef) rssRef = $2 }
    if ($2 > rssMax) rssMax = $2
    # Allocations by their floor per minute: a frame under way holds a
    # scratch block for a moment, a leak raises the floor.
    m = int(($1 - warmup) / 60)
    if (!(m in floor) || $3 < floor[m]) floor[m] = $3
    if (m > minutes) minutes = m
    cpu += $7
  }
  END {
    while ((getline t < timings) > 0) { split(t, f, " "); cmds++; if (f[1] > cliMax) cliMax = f[1]; if (f[2] != 0) cliFail++; if (f[1] >= 1000) cliSlow++ }
    while ((getline l < hostlog) > 0) {
      if (l ~ /allocation\(s\) outstanding at/) { split(l, w, " "); exitAlloc = w[2] }
      if (l ~ /frame buffer\(s\) outstanding$/) { split(l, w, " "); exitBuf = w[2] }
      if (l ~ /replayed [0-9]+ frame/) { match(l, /replayed [0-9]+/); frames = substr(l, RSTART + 9, RLENGTH - 9) }
    }
    if (n == 0) { print "soak: FAIL, no sample after the warm-up (see " work ")"; exit 1 }
    rssGrowth = 100 * (rssMax - rssRef) / rssRef
    allocRef = floor[0]
    for (m = 0; m <= minutes; m++) if (m in floor && floor[m] > allocMax) allocMax = floor[m]
    allocGrowth = allocRef > 0 ? 100 * (allocMax - allocRef) / allocRef : 0
    fail = ""
    if (rssGrowth > 5) fail = fail " rss"
    if (allocGrowth > 5) fail = fail " allocations"
    if (cliMax >= 1000 || cliFail > 0) fail = fail " cli"
    if (exitBuf == "" || exitBuf != 0 || exitAlloc == "" || exitAlloc > allocRef * 1.05) fail = fail " exit-report"
    traffic = mode == "live" ? sprintf("live, %s PADI sent, %s of the first port'"'"'s reached the uplink", sent == "" ? "?" : sent, reached == "" ? "?" : reached) \
                             : sprintf("replay, %s frames", frames == "" ? "?" : frames)
    printf "soak: %s %d s after %d s warm-up, %s, switch CPU %d %%: rss %d kB at the warm-up'"'"'s end, at most %d after (%+.1f %%); allocations %d in the first minute, at most %d in a later one (%+.1f %%, floors per minute); cli %d commands, max %d ms, %d over 1 s, %d failed; exit report %s allocations, %s frame buffers; load average %s on %d CPU(s); %s\n",
      fail == "" ? "PASS" : "FAIL (" substr(fail, 2) ")", n, warmup, traffic, cpu / n,
      rssRef, rssMax, rssGrowth, allocRef, allocMax, allocGrowth, cmds, cliMax, cliSlow, cliFail,
      exitAlloc == "" ? "?" : exitAlloc, exitBuf == "" ? "?" : exitBuf, load, cpus, work
    exit fail == "" ? 0 : 1
  }' "$work/samples.csv"
