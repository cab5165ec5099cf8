# Sourced by the lab and the live benchmark: network namespaces, veth pairs
# and the processes started in them. The caller sets $state (a folder for
# process ids and logs) and the array $namespaces (every namespace it makes);
# nothing outside those namespaces is ever touched.

# A veth pair from A in namespace NSA to B in namespace NSB, both up.
veth() {
  local a=$1 nsa=$2 b=$3 nsb=$4
  ip link add "${a}" netns "${nsa}" type veth peer name "${b}" netns "${nsb}"
  ip -n "${nsa}" link set "${a}" up
  ip -n "${nsb}" link set "${b}" up
}

# Makes the caller's namespaces, loopback up and IPv6 off, so that the
# kernel adds no chatter of its own on the veths.
make_namespaces() {
  local ns
  for ns in "${namespaces[@]}"; do
    ip netns add "${ns}"
    ip netns exec "${ns}" sysctl -qw net.ipv6.conf.default.disable_ipv6=1 net.ipv6.conf.all.disable_ipv6=1
    ip -n "${ns}" link set lo up
  done
}

# Starts NAME in namespace NS in the background, its output in
# $state/NAME.log, its process id in $state/NAME.pid.
start_in() {
  local ns=$1 name=$2
  shift 2
  ip netns exec "${ns}" "$@" >"${state}/${name}.log" 2>&1 &
  echo $! >"${state}/${name}.pid"
}

# Waits up to SECONDS for TEXT in FILE while process NAME lives.
wait_for_line() {
  local name=$1 file=$2 text=$3 seconds=$4 pid
  pid=$(cat "${state}/${name}.pid")
  for _ in $(seq $((seconds * 10))); do
    grep -qF -- "${text}" "${file}" 2>/dev/null && return 0
    kill -0 "${pid}" 2>/dev/null || break
    sleep 0.1
  done
  grep -qF -- "${text}" "${file}" 2>/dev/null
}

# Stops a process started with start_in, by the id it recorded, if it still
# runs in one of the caller's namespaces: SIGTERM, then SIGKILL after 5 s.
stop_recorded() {
  local pidfile=$1 pid ns
  pid=$(cat "${pidfile}" 2>/dev/null) || return 0
  rm -f "${pidfile}"
  [ -n "${pid}" ] && kill -0 "${pid}" 2>/dev/null || return 0
  ns=$(ip netns identify "${pid}" 2>/dev/null || true)
  case " ${namespaces[*]} " in
    *" ${ns} "*) ;;
    *) return 0 ;;
  esac
  kill -TERM "${pid}" 2>/dev/null || true
  for _ in $(seq 50); do
    kill -0 "${pid}" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "${pid}" 2>/dev/null || true
}

has_namespace() {
  ip netns list | grep -qx -- "$1\( (id: [0-9]*)\)\?"
}

# Stops every recorded process, then whatever still runs inside the
# caller's namespaces (all of it started there by the caller), and removes
# the namespaces with their netdevs.
remove_namespaces() {
  local pidfile ns pid
  if [ -d "${state}" ]; then
    for pidfile in "${state}"/*.pid; do
      [ -e "${pidfile}" ] && stop_recorded "${pidfile}"
    done
  fi
  for ns in "${namespaces[@]}"; do
    has_namespace "${ns}" || continue
    for pid in $(ip netns pids "${ns}" 2>/dev/null); do
      kill -KILL "${pid}" 2>/dev/null || true
    done
    ip netns del "${ns}"
  done
}
