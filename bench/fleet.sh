#!/usr/bin/env bash
# The fleet table: connect storm, commands to all, CPU at rest and memory of speakerd beside mosquitto and a
# bare epoll server, one after the other on loopback. Every server gets a temporary directory and free ports
# and is stopped by its process. Prints each run to standard error and the table of medians to standard output.
#
# bench/fleet.sh [--sizes "1000 5000 10000 19500"] [--targets "mosquitto tuned raw speakerd redis"]
#                [--runs 3] [--rest 15] [--window 1000] [--build build/release]
set -euo pipefail
. "$(dirname "$0")/servers.sh"

sizes="1000 5000 10000 19500"
targets="mosquitto tuned raw speakerd redis"
runs=3 rest=15 window=1000 build=$root/build/release
read_options "sizes targets runs rest window build" "$@"
build=$(realpath "$build")

# Each leaves its process in `pid`, the fleet's port in `port` and the controller's in `control`.
start_mosquitto() { # LINE...: of its configuration besides
  free_port port
  control=$port mode=mqtt
  printf '%s\n' "listener $port 127.0.0.1" "allow_anonymous true" "log_type none" "$@" >"$dir/mosquitto.conf"
  spawn mosquitto -c "$dir/mosquitto.conf" >"$dir/mosquitto.log" 2>&1
}

start_raw() {
  free_port port
  control=$port mode=raw
  spawn "$build/fleet" raw-server --port "$port"
}

start_service() { # SETTING...
  prepare_speakerd "$@"
  start_speakerd "$build"
  port=$device_port control=$command_port mode=speakers
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
    redis) start_redis_server; start_service EnableRedis=true RedisPort="$redis_port" ;;
    *) echo "unknown target $1" >&2; exit 2 ;;
  esac
  wait_for_port "$control"
}

measure() { # target size run
  local pid port control mode figures
  start "$1"
  figures=$("$build/fleet" "$mode" --port "$port" --control "$control" --pid "$pid" --count "$2" \
    --rest "$rest" --window "$window") || figures="- - - - - - -"
  stop
  echo "$1 $2 $figures" | tee -a "$dir/figures" >&2
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

for size in $sizes; do
  for _ in $(seq "$runs"); do
    for target in $targets; do measure "$target" "$size"; done
  done
done
echo "| Speakers | Server | Connect storm | VOL_S to all | PLAYOFF to all | CPU at rest | Memory per connection | CPU of the storm | CPU of one VOL_S |"
echo "|---|---|---|---|---|---|---|---|---|"
print_table '| %s | %s | %s ms | %s ms | %s ms | %s %% | %s kB | %s ms | %s ms |\n' "$sizes" 3 4 5 6 7 8 9
