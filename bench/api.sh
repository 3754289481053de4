#!/usr/bin/env bash
# Requests a second of the management interface: a login, a list of 100 devices, a play command to three
# speakers; 8 keep-alive clients.
# Usage: bench/api.sh [BUILD_DIR]      (default build/release; SECONDS_EACH=8 and RUNS=3 may be set)
set -euo pipefail
. "$(dirname "$0")/servers.sh"
build=$(realpath "${1:-$root/build/release}")
seconds=${SECONDS_EACH:-8}
runs=${RUNS:-3}

prepare_speakerd
{
  echo "INSERT INTO sbox_users (id, user_name, user_pass, token) VALUES (1, 'bench', 'bench', 't');"
  for i in $(seq 0 99); do
    printf "INSERT INTO sbox_device_info (user_id, device_name, device_seed) VALUES (1, 'speaker %d', '%032x');\n" "$i" "$i"
  done
} | sqlite3 -bail "$service/.Elvor.db"
start_speakerd "$build"
base=http://127.0.0.1:$http_port
wait_until "HTTP" curl -sf -o /dev/null -X POST "$base/user/test"

# Three speakers that register, beat and read: what they are told costs them nothing.
cat >"$dir/speakers.py" <<'PY'
import select, socket, sys, time
speakers = []
for i in range(3):
    speaker = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
    speaker.sendall(i.to_bytes(16, "big") + b"\0\x14")
    speakers.append(speaker)
beat = time.monotonic()
while True:
    for speaker in select.select(speakers, [], [], 1)[0]:
        if not speaker.recv(65536):
            sys.exit("speaker dropped")
    if time.monotonic() - beat > 4:
        beat = time.monotonic()
        for speaker in speakers:
            speaker.sendall(b"BEAT")
PY
spawn python3 "$dir/speakers.py" "$device_port"
three_online() { [ "$(curl -s -d '' "$base/user/olist" | grep -c '"seed"')" = 3 ]; }
wait_until "three speakers" three_online

measure() { # name, path, form
  cat >"$dir/post.lua" <<LUA
wrk.method = "POST"
wrk.headers["Content-Type"] = "application/x-www-form-urlencoded"
wrk.body = "$3"
LUA
  curl -s -d "$3" "$base$2" | grep -q '"res": true' || {
    echo "$1: refused" >&2
    exit 1
  }
  for _ in $(seq "$runs"); do
    wrk -t2 -c8 -d"${seconds}s" --latency -s "$dir/post.lua" "$base$2" >"$dir/out"
    awk '/Requests\/sec/ { print $2 }' "$dir/out" >>"$dir/$1.rps"
    awk '/99%/ { print $2 }' "$dir/out" >>"$dir/$1.p99"
  done
  printf '| %s | %s | %s |\n' "$1" "$(median <"$dir/$1.rps")" "$(sort -h "$dir/$1.p99" | sed -n "$(((runs + 1) / 2))p")"
}
token() { curl -s -d 'username=bench&passwd=bench' "$base/user/gtoken" | sed -n 's/.*"token": "\(.*\)".*/\1/p'; }

echo '| Request | Requests/s | 99th percentile |'
echo '|---|---|---|'
measure gtoken /user/gtoken 'username=bench&passwd=bench'
token=$(token)
measure listdev /user/listdev "id=1&token=$token"
serials=$(for i in 0 1 2; do printf '%032x|' "$i"; done)
measure urlplay /user/urlplay "id=1&token=$token&snlist=${serials%|}&url=http://127.0.0.1/bell.mp3"
