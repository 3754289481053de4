#!/usr/bin/env bash
# The media table: one live 128 kbit/s stream to many, from speakerd to speakers that pull it and from icecast2
# to its listeners, one after the other on loopback. Every server gets a temporary directory and free ports and
# is stopped by its process. Prints a table to standard output.
#
# bench/media.sh [--sizes "500 2000"] [--targets "icecast2 speakerd"] [--runs 3] [--seconds 60] [--build build/release]
set -euo pipefail
. "$(dirname "$0")/servers.sh"

sizes="500 2000" targets="icecast2 speakerd" runs=3 seconds=60 build=$root/build/release
read_options "sizes targets runs seconds build" "$@"
build=$(realpath "$build")

start_icecast2() {
  local mine=$dir/icecast
  rm -rf "$mine" && mkdir -p "$mine" && chmod 777 "$mine"
  free_port port
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
  spawn icecast2 -c "$mine/icecast.xml" >/dev/null 2>&1
  wait_for_port "$port"
}

start_service() {
  prepare_speakerd isonly_media=true
  "$build/media" file "$service/live.mg" $((seconds + 30))
  start_speakerd "$build"
}

echo "| Server | Listeners | CPU | CPU per listener | Delay, median | Delay, worst | Worst gap | Packets | Missing | Damaged |"
echo "|---|---|---|---|---|---|---|---|---|---|"
for size in $sizes; do
  for _ in $(seq "$runs"); do
    for target in $targets; do
      case $target in
        icecast2) start_icecast2; "$build/media" listeners "$pid" "$port" "$size" "$seconds" ;;
        speakerd) start_service; "$build/media" speakers "$pid" "$device_port" "$command_port" "$size" "$seconds" ;;
        *) echo "unknown target $target" >&2; exit 2 ;;
      esac
      stop
    done
  done
done
