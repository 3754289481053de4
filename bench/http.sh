#!/usr/bin/env bash
# HTTP side by side with nginx (its own defaults; for the files also with our send buffer): one 1 MB MP3 to 64 connections, and 2,000 slow readers.
# Usage: bench/http.sh [BUILD_DIR]      (default build/release; RUNS=5 and READERS=2000 may be set)
set -euo pipefail
. "$(dirname "$0")/servers.sh"
build=$(realpath "${1:-$root/build/release}")
seconds=${SECONDS_EACH:-8}
runs=${RUNS:-5}
readers=${READERS:-2000}
wait_for_song() { wait_until "/song.mp3 on port $1" curl -sf -o /dev/null "http://127.0.0.1:$1/song.mp3"; }

mkdir -p "$dir/docroot" "$dir/nginx"
head -c 1048576 /dev/urandom >"$dir/docroot/song.mp3"
# On loopback nginx's send buffer takes 2.6 MB at once: the slow readers' file is longer than that.
head -c 8388608 /dev/urandom >"$dir/docroot/long.mp3"

free_port nginx_port nginx64_port
cat >"$dir/nginx.conf" <<CONF
worker_processes 2;
pid $dir/nginx.pid;
error_log $dir/nginx.log;
events { worker_connections 8192; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  default_type audio/mpeg;
  client_body_temp_path $dir/nginx; proxy_temp_path $dir/nginx; fastcgi_temp_path $dir/nginx;
  uwsgi_temp_path $dir/nginx; scgi_temp_path $dir/nginx;
  server { listen 127.0.0.1:$nginx_port backlog=4096; root $dir/docroot; }
  server { listen 127.0.0.1:$nginx64_port backlog=4096 sndbuf=64k; root $dir/docroot; }
}
CONF
spawn nginx -c "$dir/nginx.conf" -g 'daemon off;'
wait_for_song "$nginx_port"
mapfile -t nginx_pids < <(pgrep -P "$pid")

prepare_speakerd
start_speakerd "$build"
speakerd_pid=$pid
wait_for_song "$http_port"

throughput() { # port: requests a second
  wrk -t2 -c64 -d"${seconds}s" "http://127.0.0.1:$1/song.mp3" | awk '/Requests\/sec/ { print $2 }'
}
echo "== static: 1 MB MP3, 64 connections, requests/s (runs alternate)"
for _ in $(seq "$runs"); do
  throughput "$nginx_port" >>"$dir/nginx.rps"
  throughput "$nginx64_port" >>"$dir/nginx64.rps"
  throughput "$http_port" >>"$dir/speakerd.rps"
done
show() { echo "$2: $(paste -sd' ' "$dir/$1.rps"), median $(median <"$dir/$1.rps")"; }
ratio() { paste "$dir/speakerd.rps" "$dir/$1.rps" | awk '{ printf "%.2f\n", $1 / $2 }' | median; }
show nginx "nginx"
show nginx64 "nginx, 64 kB send buffer"
show speakerd "speakerd"
echo "speakerd to nginx: $(ratio nginx); to nginx with the same send buffer: $(ratio nginx64)"

echo "== slow: $readers readers at 16 kB/s, CPU of the server (runs alternate)"
nginx_arguments=()
for pid in "${nginx_pids[@]}"; do nginx_arguments+=(--pid "$pid"); done
curl -sf -o /dev/null -X POST "http://127.0.0.1:$http_port/user/test" # the first worker is there
slow() { "$build/httpload" --path /long.mp3 --readers "$readers" --seconds "$seconds" "$@"; }
for _ in $(seq "$runs"); do
  slow --port "$nginx_port" "${nginx_arguments[@]}" | sed 's/^/nginx: /' | tee -a "$dir/slow"
  slow --port "$nginx64_port" "${nginx_arguments[@]}" | sed 's/^/nginx64: /' | tee -a "$dir/slow"
  slow --port "$http_port" --pid "$speakerd_pid" | sed 's/^/speakerd: /' | tee -a "$dir/slow"
done
for name in nginx nginx64 speakerd; do
  awk -v n="$name:" '$1 == n { sub("%", "", $3); print $3 }' "$dir/slow" | median | sed "s/^/$name: median CPU % /"
done
echo "== the same, while an API request is answered every 20 ms"
for _ in $(seq "$runs"); do slow --port "$http_port" --pid "$speakerd_pid" --api /user/test; done

echo "== JSON: POST /user/test, 64 connections"
cat >"$dir/post.lua" <<'LUA'
wrk.method = "POST"
LUA
wrk -t2 -c64 -d"${seconds}s" --latency -s "$dir/post.lua" "http://127.0.0.1:$http_port/user/test" |
  awk '/Requests\/sec|99%|50%/'
