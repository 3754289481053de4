#!/usr/bin/env bash
# The media table: one live 128 kbit/s stream to many, from speakerd to speakers that pull it and from icecast2
# to its listeners, one after the other on loopback. Every server gets a temporary directory and free ports and
# is stopped by its process. Prints a table to standard output.
#
# bench/media.sh [--sizes "500 2000"] [--targets "icecast2 speakerd"] [--runs 3] [--seconds 60] [--build build/release]
set -euo pipefail
cd "$(dirname "$0")/.."

sizes="500 2000" targets="icecast2 speakerd" runs=3 seconds=60 build=build/release
while [ $# -gt 1 ]; do
  case $1 in
    --sizes) sizes=$2 ;;
    --targets) targets=$2 ;;
    --runs) runs=$2 ;;
    --seconds) seconds=$2 ;;
    --build) build=$2 ;;
    *) sed -n '2,6p' "$0" >&2; exit 2 ;;
  esac
  shift 2
done
build=$(realpath "$build")
ulimit -n "$(ulimit -Hn)"

dir=$(mktemp -d)
chmod 755 "$dir"
pid=
stop() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true; fi
  pid=
}
trap 'stop; rm -rf "$dir"' EXIT

# Below the range from which the load program's own ports come; the next two are free as well.
free_port() {
  local port i
  while :; do
    port=$((10000 + RANDOM % 22000))
    for i in 0 1 2; do (exec 3<>"/dev/tcp/127.0.0.1/$((port + i))") 2>/dev/null && continue 2; done
    echo $port
    return
  done
}

wait_for_port() {
  for _ in $(seq 100); do
    (exec 3<>/dev/tcp/127.0.0.1/"$1") 2>/dev/null && return
    sleep 0.1
  done
  echo "no server on port $1" >&2
  exit 1
}

start_icecast2() {
  local mine=$dir/icecast
  rm -rf "$mine" && mkdir -p "$mine" && chmod 777 "$mine"
  port=$(free_port)
  cat >"$mine/icecast.xml" <<XML
<icecast>
  <limits><clients>10000</clients><sources>2</sources><burst-on-connect>0</burst-on-connect></limits>
  <authentication><source-password>hackme</source-password><admin-password>hackme</admin-password></authentication>
  <listen-socket><port>$port</port><bind-address>127.0.0.1</bind-address></listen-socket>
  <paths><basedir>$mine</basedir><logdir>$mine</logdir><webroot>/usr/share/icecast2/web</webroot>
    <adminroot>/usr/share/icecast2/admin</adminroot></paths>
  <logging><accesslog>access.log</accesslog><errorlog>error.log</errorlog><loglevel>1</loglevel></logging>
  <security><chroot>0</chroot><changeowner><user>nobody</user><group>nogroup</group></changeowner></security>
</icecast>
XML
  icecast2 -c "$mine/icecast.xml" >/dev/null 2>&1 &
  pid=$!
  wait_for_port "$port"
}

start_speakerd() {
  local mine=$dir/service
  rm -rf "$mine" && mkdir -p "$mine"
  device=$(free_port) port=$(free_port)
  cat >"$mine/config.ini" <<INI
[Settings]
LocalIP=127.0.0.1
DPort=$device
DataPortBack3=$(free_port)
PS1=$(free_port)
PS2=$port
isonly_media=true
INI
  "$build/media" file "$mine/live.mg" $((seconds + 30))
  (cd "$mine" && exec "$build/speakerd" config.ini >speakerd.log 2>&1) &
  pid=$!
  wait_for_port "$port"
}

echo "| Server | Listeners | CPU | CPU per listener | Delay, median | Delay, worst | Worst gap | Packets | Missing | Damaged |"
echo "|---|---|---|---|---|---|---|---|---|---|"
for size in $sizes; do
  for _ in $(seq "$runs"); do
    for target in $targets; do
      case $target in
        icecast2) start_icecast2; "$build/media" listeners "$pid" "$port" "$size" "$seconds" ;;
        speakerd) start_speakerd; "$build/media" speakers "$pid" "$device" "$port" "$size" "$seconds" ;;
        *) echo "unknown target $target" >&2; exit 2 ;;
      esac
      stop
    done
  done
done
