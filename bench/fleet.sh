#!/usr/bin/env bash
# The fleet table: connect storm, commands to all, CPU at rest and memory of speakerd beside mosquitto and a
# bare epoll server, one after the other on loopback. Every server gets a temporary directory and free ports
# and is stopped by its process. Prints each run to standard error and the table of medians to standard output.
#
# bench/fleet.sh [--sizes "1000 5000 10000 19500"] [--targets "mosquitto tuned raw speakerd redis"]
#                [--runs 3] [--rest 15] [--window 1000] [--build build/release]
set -euo pipefail
cd "$(dirname "$0")/.."

sizes="1000 5000 10000 19500"
targets="mosquitto tuned raw speakerd redis"
runs=3 rest=15 window=1000 build=build/release
while [ $# -gt 1 ]; do
  case $1 in
    --sizes) sizes=$2 ;;
    --targets) targets=$2 ;;
    --runs) runs=$2 ;;
    --rest) rest=$2 ;;
    --window) window=$2 ;;
    --build) build=$2 ;;
    *) sed -n '2,8p' "$0" >&2; exit 2 ;;
  esac
  shift 2
done
build=$(realpath "$build")
root=$PWD
ulimit -n "$(ulimit -Hn)"

dir=$(mktemp -d)
pids=()
stop() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  pids=()
}
trap 'stop; rm -rf "$dir"' EXIT

# Below the range from which the load program's own ports come.
free_port() {
  local port
  while port=$((10000 + RANDOM % 22000)); (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null; do :; done
  echo $port
}

wait_for_port() {
  for _ in $(seq 100); do
    (exec 3<>/dev/tcp/127.0.0.1/"$1") 2>/dev/null && return
    sleep 0.1
  done
  echo "no server on port $1" >&2
  exit 1
}

start_mosquitto() {
  local port
  port=$(free_port)
  { echo "listener $port 127.0.0.1"; echo "allow_anonymous true"; echo "log_type none"; "$@"; } >"$dir/mosquitto.conf"
  mosquitto -c "$dir/mosquitto.conf" >"$dir/mosquitto.log" 2>&1 &
  pids+=($!)
  server="$! $port $port"
}

tuned() { echo "allow_duplicate_messages true"; echo "set_tcp_nodelay true"; }

start_raw() {
  local port
  port=$(free_port)
  "$build/fleet" raw-server --port "$port" &
  pids+=($!)
  server="$! $port $port"
}

# speakerd with everything that start-up makes: database, task queue, HTTP.
start_speakerd() {
  local device command
  device=$(free_port) command=$(free_port)
  rm -rf "$dir/service" && mkdir -p "$dir/service/docroot"
  cat >"$dir/service/config.ini" <<INI
[Settings]
LocalIP=127.0.0.1
DPort=$device
DataPortBack3=$(free_port)
PS1=$(free_port)
PS2=$command
wbport=$(free_port)
dbk=3
$(printf '%s\n' "$@")
[listener]
port=$(free_port)
[docroot]
path=docroot
INI
  sqlite3 -bail "$dir/service/.Elvor.db" <"$root/core/schema/sqlite3main.sql"
  (cd "$dir/service" && exec "$build/speakerd" config.ini >speakerd.log 2>&1) &
  pids+=($!)
  server="$! $device $command"
}

start_redis_server() {
  redis_port=$(free_port)
  redis-server --port "$redis_port" --bind 127.0.0.1 --save '' --appendonly no --dir "$dir" >/dev/null &
  pids+=($!)
  wait_for_port "$redis_port"
}

start() {
  case $1 in
    mosquitto) start_mosquitto true; mode=mqtt ;;
    tuned) start_mosquitto tuned; mode=mqtt ;;
    raw) start_raw; mode=raw ;;
    speakerd) start_speakerd; mode=speakers ;;
    redis) start_redis_server; start_speakerd EnableRedis=true RedisPort="$redis_port"; mode=speakers ;;
    *) echo "unknown target $1" >&2; exit 2 ;;
  esac
}

measure() { # target size run
  local pid port control
  start "$1"
  read -r pid port control <<<"$server"
  wait_for_port "$control"
  local figures
  figures=$("$build/fleet" "$mode" --port "$port" --control "$control" --pid "$pid" --count "$2" \
    --rest "$rest" --window "$window") || figures="- - - - - - -"
  stop
  echo "$1 $2 $figures" | tee -a "$dir/figures" >&2
}

column_median() { # target size column
  awk -v t="$1" -v s="$2" -v c="$3" '$1 == t && $2 == s && $c != "-" {print $c}' "$dir/figures" | sort -g |
    awk '{v[NR] = $1} END {if (NR) print v[int((NR + 1) / 2)]; else print "-"}'
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
