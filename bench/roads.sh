# What bench/system and bench/tls share; sourced from the top of the tree. BENCH_DIR: where the
# instances and their spool files are, else /tmp.
# shellcheck shell=bash disable=SC2034
bin=$PWD/build/release/bin
export VANTREL_HOME
work=$(mktemp -d "${BENCH_DIR:-/tmp}/vantrel-bench.XXXXXX")
chmod 755 "$work"
pids=()
scratch=
finish() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done; rm -rf "$work" $scratch; }
trap finish EXIT

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

declare -A road  # the processes of each road, whose CPU time counts
declare -A fewer  # by which number the messages are divided for a slow road

start_sink() {  # start_sink PORT [SESSIONS]
  smtp-sink -m "${2:-1200}" -u nobody "127.0.0.1:$1" 1000 >/dev/null 2>&1 & pids+=($!); road[straight]=$!
}

set_keys() {  # set_keys "KEY VALUE"... of the interface
  local key
  for key in "$@"; do
    "$bin/vtregistry" set "/VTWIN/Agents/VTSMTPProxy/NetworkInterfaces/net/${key%% *}" "${key#* }"
  done
}

instance() {  # instance ROAD PORT SERVER: a directory with the keys of a proxy
  VANTREL_HOME=$work/$1; mkdir -m 700 "$VANTREL_HOME"
  set_keys "Port $2" "IPAddress 127.0.0.1" "ServerToForward $3" "RelayNetworks/l/IPAddress 127.0.0.0" \
    "RelayNetworks/l/Mask 255.0.0.0" "MaxThreads 0"
}

run_instance() {  # run_instance ROAD [vtmaild options]: its process is $proxy
  local name=$1; shift
  "$bin/vtmaild" debug "$@" >/dev/null 2>&1 & pids+=($!); road[$name]+=" $!"
  for _ in $(seq 100); do [ -S "$VANTREL_HOME/pipes/vtmaild" ] && break; sleep 0.1; done
  "$bin/vtsmtpproxy" debug >/dev/null 2>&1 & proxy=$!; pids+=($proxy); road[$name]+=" $proxy"
  sleep 0.5
}

ticks() {  # of all the processes given
  local p sum=0
  for p in "$@"; do sum=$((sum + $(awk '{ print $14 + $15 }' "/proc/$p/stat"))); done
  echo "$sum"
}

measure() {  # measure TITLE MESSAGES "ROAD PORT"... -- COMMAND...: the first road is what the others are shares of
  local title=$1 n=$2 base='' first each name port s before cpu m roads=(); shift 2
  while [ "$1" != -- ]; do roads+=("$1"); shift; done
  shift
  first=${roads[0]% *}
  echo "$title"
  for each in "${roads[@]}"; do
    name=${each% *} port=${each#* } m=$((n / ${fewer[${each% *}]:-1}))
    # shellcheck disable=SC2086
    before=$(ticks ${road[$name]})
    s=$(seconds "$m" "$port" "$@")
    # shellcheck disable=SC2086
    cpu=$(($(ticks ${road[$name]}) - before))
    base=${base:-$s}
    awk -v r="$name" -v s="$s" -v n="$n" -v m="$m" -v b="$base" -v c="$cpu" -v f="$first" 'BEGIN {
      if (s == 0) s = 0.01
      printf "  %-9s %8.1f messages/s   %.2f of %s   CPU %.2f s%s%s\n", r, m / s, b * m / n / s, f, c / 100,
        m == n ? "" : " for " m, r == "straight" ? " (the sink)" : "" }'
  done
}
