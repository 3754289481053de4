# Sourced by the scripts of bench/: free ports, and servers that are started in one temporary directory and are
# stopped by their process numbers. Makes `root`, `dir` (temporary, removed at the end) and `pids`.
# shellcheck shell=bash disable=SC2034 # the variables are for the scripts
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
dir=$(mktemp -d)
chmod 755 "$dir" # some servers drop their privileges
pids=()
ulimit -n "$(ulimit -Hn)"

stop() {
  local i
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do # clients before their servers
    kill "${pids[i]}" 2>/dev/null || true
    wait "${pids[i]}" 2>/dev/null || true
  done
  pids=()
}
trap 'stop; rm -rf "$dir"' EXIT
trap 'exit 130' INT TERM

read_options() { # "NAME..." ARGUMENT...: --NAME VALUE sets the variable NAME; anything else shows the script's head
  local names=" $1 "
  shift
  while [ $# -gt 0 ]; do
    [ $# -gt 1 ] && [[ $1 == --?* && $names == *" ${1#--} "* ]] || {
      sed -n '2,/^set /s/^# \{0,1\}//p' "$0" >&2
      exit 2
    }
    printf -v "${1#--}" %s "$2"
    shift 2
  done
}

listening() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Below the range from which the load programs' own ports come. Three in a row are free: speakerd takes a second one.
next_port=$((10000 + RANDOM % 15000))
free_port() { # NAME...: puts a port into each variable
  local name
  for name; do
    while listening $next_port || listening $((next_port + 1)) || listening $((next_port + 2)); do
      next_port=$((next_port + 3))
    done
    printf -v "$name" %s $next_port
    next_port=$((next_port + 3))
    [ $next_port -lt 32000 ] || next_port=10000
  done
}

wait_until() { # WHAT COMMAND...: for 20 s at most
  local what=$1
  shift
  for _ in $(seq 200); do
    "$@" && return
    sleep 0.1
  done
  echo "not there in 20 s: $what" >&2
  tail -n 5 "$dir"/*.log >&2
  exit 1
}
wait_for_port() { wait_until "a server on port $1" listening "$1"; }

spawn() { # COMMAND...: into the background; `pid` is its process
  "$@" &
  pid=$!
  pids+=("$pid")
}

# Directory, database and configuration of a service with everything that start-up makes; it serves $dir/docroot.
prepare_speakerd() { # KEY=VALUE...: settings besides
  local back3 ps1 websocket
  free_port device_port command_port http_port back3 ps1 websocket
  service=$dir/service
  rm -rf "$service"
  mkdir -p "$service" "$dir/docroot"
  cat >"$service/config.ini" <<INI
[Settings]
LocalIP=127.0.0.1
DPort=$device_port
DataPortBack3=$back3
PS1=$ps1
PS2=$command_port
wbport=$websocket
dbk=3
$(printf '%s\n' "$@")
[listener]
host=127.0.0.1
port=$http_port
[docroot]
path=$dir/docroot
INI
  sqlite3 -bail "$service/.Elvor.db" <"$root/core/schema/sqlite3main.sql"
}

start_speakerd() { # BUILD_DIR
  spawn env --chdir="$service" "$1/speakerd" config.ini >"$dir/speakerd.log" 2>&1
  wait_for_port "$command_port"
}

median() { sort -g | awk '{ v[NR] = $1 } END { if (NR) print v[int((NR + 1) / 2)]; else print "-" }'; }
