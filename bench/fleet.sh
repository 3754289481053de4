#!/usr/bin/env bash
# The fleet table: connect storm, commands to all, CPU at rest and memory of speakerd beside mosquitto and a
# bare epoll server, one after the other on loopback. Every server gets a temporary directory and free ports
# and is stopped by its process. Prints each run to standard error and the table of medians to standard output.
# With --rounds N: instead, the whole fleet of speakerd is cut off at once and comes back, N times; prints each storm,
# the memory after it and whether LIST told the right states.
#
# bench/fleet.sh [--sizes "1000 5000 10000 19500"] [--targets "mosquitto tuned raw speakerd redis"]
#                [--runs 3] [--rest 15] [--window N] [--rounds N] [--build build/release]
set -euo pipefail
. "$(dirname "$0")/servers.sh"

sizes="1000 5000 10000 19500"
targets="mosquitto tuned raw speakerd redis"
runs=3 rest=15 window="" rounds=0 build=$root/build/release
read_options "sizes targets runs rest window rounds build" "$@"
build=$(realpath "$build")

# Connections that a storm keeps begun and not yet admitted: what suits each server best (--window sets it for all).
# mosquitto listens with a queue of 100; beyond it connections are dropped and come again after a second or more.
mosquitto_pending=90

# Each leaves its process in `pid`, the fleet's port in `port`, the controller's in `control` and `pending`.
start_mosquitto() { # LINE...: of its configuration besides
  free_port port
  control=$port mode=mqtt pending=$mosquitto_pending
  printf '%s\n' "listener $port 127.0.0.1" "allow_anonymous true" "log_type none" "$@" >"$dir/mosquitto.conf"
  spawn mosquitto -c "$dir/mosquitto.conf" >"$dir/mosquitto.log" 2>&1
}

start_raw() {
  free_port port
  control=$port mode=raw pending=1000
  spawn "$build/fleet" raw-server --port "$port"
}

start_service() { # SETTING...
  prepare_speakerd "$@"
  start_speakerd "$build"
  port=$device_port control=$command_port mode=speakers pending=1000
}

start_redis_server() {
  free_port redis_port
  spawn redis-server --port "$redis_port" --bind 127.0.0.1 --save '' --appendonly no --dir "$dir" >/dev/null
  wait_for_port "$redis_port"
}

start() {
  case $1 in
    mosquitto) start_mosquitto ;;
    tuned) start_mosquitto "allow_duplicate_messages true" "set_tcp_nodelay true" ;;
    raw) start_raw ;;
    speakerd) start_service ;;
    unrecorded) start_service journal=false ;; # the same without the journal
    redis) start_redis_server; start_service EnableRedis=true RedisPort="$redis_port" ;;
    *) echo "unknown target $1" >&2; exit 2 ;;
  esac
  wait_for_port "$control"
}

load() { # target size ARGUMENT...: starts the server, prints what the load program prints
  local target=$1 count=$2 port control mode pending
  shift 2
  start "$target"
  "$build/fleet" "$mode" --port "$port" --control "$control" --pid "$pid" --count "$count" --rest "$rest" \
    --window "${window:-$pending}" "$@" >"$dir/out" || echo "- - - - - - -" >>"$dir/out"
  stop
}

measure() { # target size
  load "$1" "$2"
  sed "s/^/$1 $2 /" "$dir/out" | tee -a "$dir/figures" >&2
}

column_median() { # target size column
  awk -v t="$1" -v s="$2" -v c="$3" '$1 == t && $2 == s && $c != "-" {print $c}' "$dir/figures" | median
}

print_table() { # format sizes columns...
  local format=$1 rows=$2 size target column row
  shift 2
  for size in $rows; do
    for target in $targets; do
      row=()
      for column in "$@"; do row+=("$(column_median "$target" "$size" "$column")"); done
      # shellcheck disable=SC2059
      printf "$format" "$size" "$target" "${row[@]}"
    done
  done
}

print_rounds() {
  echo "| Speakers | Server | Round | LIST tells all offline after | Connect storm | LIST tells all online after | Memory | States |"
  echo "|---|---|---|---|---|---|---|---|"
  local size target
  for size in $sizes; do
    for target in $targets; do
      case $target in speakerd | redis) ;; *) continue ;; esac
      load "$target" "$size" --rounds "$rounds"
      awk -v size="$size" -v target="$target" \
        '{ printf "| %s | %s | %s | %s ms | %s ms | %s ms | %s kB | %s |\n", size, target, $1, $2, $3, $4, $5, $6 }' "$dir/out"
    done
  done
}

# What a speaker costs at the largest size divided by what it costs at the smallest.
print_growth() { # target
  local first last column name
  read -r first _ <<<"$sizes"
  last=${sizes##* }
  while read -r column name; do
    echo "$(column_median "$1" "$first" "$column") $(column_median "$1" "$last" "$column") $name"
  done <<<$'4 VOL_S\n9 CPU of one VOL_S\n6 CPU at rest\n3 storm\n7 memory' | awk -v target="$1" -v first="$first" -v last="$last" '
    {
      small = $1; large = $2; $1 = $2 = ""; sub(/^ +/, "")
      per_speaker = $0 == "memory" ? 1 : first / last # memory is per speaker already
      ratio = small > 0 && large != "-" ? sprintf("%.2f", large / small * per_speaker) : "-"
      text = text (NR > 1 ? ", " : "") $0 " " ratio
    }
    END { print target ", cost per speaker at " last " to that at " first ": " text }'
}

if [ "$rounds" -gt 0 ]; then
  print_rounds
  exit
fi
for size in $sizes; do
  for _ in $(seq "$runs"); do
    for target in $targets; do measure "$target" "$size"; done
  done
done
echo "| Speakers | Server | Connect storm | VOL_S to all | PLAYOFF to all | CPU at rest | Memory per connection | CPU of the storm | CPU of one VOL_S |"
echo "|---|---|---|---|---|---|---|---|---|"
print_table '| %s | %s | %s ms | %s ms | %s ms | %s %% | %s kB | %s ms | %s ms |\n' "$sizes" 3 4 5 6 7 8 9
if [[ $sizes == *" "* ]]; then
  echo
  for target in $targets; do
    case $target in speakerd | redis) print_growth "$target" ;; esac
  done
fi
