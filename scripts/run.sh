#!/usr/bin/env bash
# Builds the service, starts it with three simulated speakers and plays an announcement on them.
# usage: scripts/run.sh [--once]
#   --once  stop after the show; exit status 0 only if every speaker fetched the whole file
# Environment:
#   SPEAKERD_VAR         working directory (default: var), made when it is not there, reused when it is
#   SPEAKERD_BIN         directory of speakerd and speaker-sim (default: build the release preset)
#   SPEAKERD_FREE_PORTS  1: a new config.ini gets free ports instead of the usual ones
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
once=0
case "${1:-}" in
  "") ;;
  --once) once=1 ;;
  *) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac

speakers=3
first_serial=5eed0000000000000000000000000001
deadline=60 # seconds for each step of the show

die() { echo "run.sh: $*" >&2; exit 1; }
random_hex() { od -An -N"$1" -tx1 /dev/urandom | tr -d ' \n'; }
own_address() { hostname -I 2>/dev/null | tr ' ' '\n' | grep -m1 -E '^[0-9]+(\.[0-9]+){3}$' || echo 127.0.0.1; }
setting() { sed -n "s/^$1=//p" config.ini | head -n1; }
sql() { sqlite3 -cmd '.timeout 10000' .Elvor.db "$1"; }

free_port() { # prints a port that nobody listens on, out of the ephemeral range, with PORT + 2 free too
  local port
  while :; do
    port=$((10000 + RANDOM % 20000))
    ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null &&
      ! (exec 3<>"/dev/tcp/127.0.0.1/$((port + 2))") 2>/dev/null && { echo "$port"; return; }
  done
}

wait_until() { # SECONDS COMMAND...
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $end ] || return 1
    kill -0 "$service_pid" 2>/dev/null || return 1
    sleep 0.05
  done
}

write_config() (
  local device=3333 device2=7682 ps1=6003 ps2=6006 http=12080 web=12081
  if [ "${SPEAKERD_FREE_PORTS:-0}" = 1 ]; then
    device=$(free_port) device2=$(free_port) ps1=$(free_port) ps2=$(free_port) http=$(free_port) web=$(free_port)
  fi
  local address
  address=$(own_address)
  umask 077 # it holds the service key
  cat >config.ini <<INI
; Configuration of speakerd; every key is told in docs/configuration.md. Read once, at start.
[Settings]
; This server's own address, as speakers and browsers reach it.
LocalIP=$address
; Speakers connect to this port; their audio connection goes to this port plus 2.
DPort=$device
DataPortBack3=$device2
; Command servers: other nodes and this one's HTTP interface send their commands here.
PS1=$ps1
PS2=$ps2
; WebSocket front: requests and events.
wbport=$web
; Who may use them: this machine and private networks.
cmdallow="127.0.0.0/8,::1,10.0.0.0/8,172.16.0.0/12,192.168.0.0/16,$address"
; Database: 3 is the SQLite file .Elvor.db beside this file, with the task queue.
dbk=3
; Service key: who knows it may add accounts and reset the database.
ASKEY=$(random_hex 20)
; Payments must carry this key.
PayKey=$(random_hex 20)
; The safe ways, where they differ from what older clients were written for; commands go out without a pause.
hardened=true
stopsfirst=true
relaypause=0
; Where uploads are stored and where the outside programs are.
runingdir=.
programdir=$root/programs
waringdir=$PWD/waring
; Address of this server's files as speakers fetch them.
preurl=http://$address:$http/
wxcxpreurl=http://$address:$http/
; Redis mirrors the state of every speaker for other programs; off until there is a server.
EnableRedis=false
RedisIP=127.0.0.1
RedisPort=6379

[listener]
; The HTTP interface.
port=$http
minThreads=4
maxThreads=32
maxRequestSize=1000000
maxMultiPartSize=134217728

[docroot]
path=etc/docroot
encoding=UTF-8
maxAge=60000

[sessions]
expirationTime=3600000
cookieName=sessionid
INI
)

make_database() (
  umask 077 # it holds passwords
  local password i serial
  password=$(random_hex 8)
  sqlite3 -bail .Elvor.db.new <"$root/core/schema/sqlite3main.sql"
  mv .Elvor.db.new .Elvor.db
  "$SPEAKERD_BIN/speakerd" --adduser admin --admin config.ini <<<"$password" >/dev/null
  for ((i = 0; i < speakers; i++)); do
    serial=$(serial_at $i)
    sql "INSERT INTO sbox_device_info (user_id, device_name, device_seed, node_id)
         SELECT id, 'Simulated speaker $((i + 1))', '$serial', 1 FROM sbox_users WHERE user_name = 'admin';"
  done
  echo "New account: admin, password $password"
  echo "$password" >admin.password
)

serial_at() { printf '%s%08x' "${first_serial:0:24}" $((16#${first_serial:24} + $1)); }

make_audio() { # the announcement and the silent clip, into the document root
  local mp3=etc/docroot/mp3 tmp=.audio
  mkdir -p $mp3 $tmp
  if [ ! -s $mp3/announcement.mp3 ]; then
    sox -n -r 44100 $tmp/chime.wav synth 0.5 sine 660 synth 0.5 sine mix 880 fade 0 0.5 0.2 vol 0.4
    espeak-ng -w $tmp/voice.wav "Attention please. This is a test of the public address system."
    sox $tmp/voice.wav -r 44100 $tmp/voice44.wav
    sox $tmp/chime.wav $tmp/voice44.wav $tmp/announcement.wav
    lame --quiet -b 128 $tmp/announcement.wav $tmp/announcement.mp3
    mv $tmp/announcement.mp3 $mp3/
  fi
  if [ ! -s $mp3/silence.mp3 ]; then
    sox -n -r 44100 -c 1 $tmp/silence.wav trim 0 0.5
    lame --quiet -b 32 $tmp/silence.wav $tmp/silence.mp3
    mv $tmp/silence.mp3 $mp3/
  fi
  rm -rf $tmp
}

post() { # PATH name=value...
  local path=$1 arguments=()
  shift
  for pair in "$@"; do arguments+=(--data-urlencode "$pair"); done
  curl --noproxy '*' -sS --max-time 40 "${arguments[@]}" "$base$path"
}

answers() { [ "$(curl --noproxy '*' -s --max-time 2 -d x= "$base/user/test")" = dbtest ]; }
speakers_said() { [ "$(grep -c "$1" speakers.log)" -ge "$2" ]; }

stop_all() {
  trap - EXIT
  for pid in ${speakers_pid:-} ${service_pid:-}; do
    kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  done
}

# --- get ready ---
if [ -z "${SPEAKERD_BIN:-}" ]; then
  "$root/scripts/setup.sh" run
  echo "Building (build/release)"
  (cd "$root" && cmake --preset release >/dev/null && cmake --build --preset release --target speakerd speaker-sim -- --quiet) ||
    die "the build failed"
  SPEAKERD_BIN=$root/build/release
fi
var=${SPEAKERD_VAR:-$root/var}
mkdir -p "$var"
cd "$var"
[ -f config.ini ] || write_config
[ -f .Elvor.db ] || make_database
mkdir -p etc/docroot waring
rm -rf etc/docroot/console # parts of an earlier build
cp -r "$root/docroot/." etc/docroot/
make_audio

address=$(setting LocalIP)
base=http://$address:$(setting port)
announcement=$base/mp3/announcement.mp3

# --- start ---
trap stop_all EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
"$SPEAKERD_BIN/speakerd" config.ini >speakerd.log 2>&1 </dev/null &
service_pid=$!
wait_until $deadline answers || { tail -n 5 speakerd.log >&2; die "the service does not answer at $base ($var/speakerd.log tells more)"; }
echo "speakerd answers at $base/"

rm -rf fetched
: >speakers.log
"$SPEAKERD_BIN/speaker-sim" --count $speakers --first-sn $first_serial \
  --server "$address:$(setting DPort)" --save fetched >speakers.log 2>&1 </dev/null &
speakers_pid=$!
wait_until $deadline speakers_said "all $speakers speakers online" 1 || die "the speakers did not register"
echo "$speakers simulated speakers are online"

# --- the show ---
# Its password is known to whoever made the account; the token that is valid stands in the database.
IFS='|' read -r id token < <(sql "SELECT id, token FROM sbox_users WHERE user_name = 'admin';")
serials=$(for ((i = 0; i < speakers; i++)); do serial_at $i; echo; done | paste -sd'|')
echo "POST /user/urlplay: play $announcement"
reply=$(post /user/urlplay "id=$id" "token=$token" "url=$announcement" "snlist=$serials")
[ "$(jq -r .res <<<"$reply")" = true ] || die "the request was refused: $reply"
wait_until $deadline speakers_said " played " $speakers || { cat speakers.log >&2; die "not every speaker played it"; }
grep -E ' (fetched|playing|played) ' speakers.log | sed 's/^/  /'

for ((i = 0; i < speakers; i++)); do
  cmp etc/docroot/mp3/announcement.mp3 "fetched/$(serial_at $i)/announcement.mp3" ||
    die "speaker $(serial_at $i) did not fetch the whole file"
done
echo "Every speaker fetched the whole file ($(stat -c %s etc/docroot/mp3/announcement.mp3) bytes) and played it."

if [ $once = 1 ]; then
  kill -TERM "$service_pid"
  wait "$service_pid" || die "the service ended with status $?"
  service_pid=
  exit 0
fi

cat <<NEXT

Console: $base/console/    account admin, password $(cat admin.password 2>/dev/null || echo unknown)

Go on with curl:
  curl -d id=$id -d token=$token -d vol=10 -d 'snlist=$serials' $base/user/editvols
  curl -d id=$id -d token=$token -d 'snlist=$serials' --data-urlencode url=$announcement $base/user/urlplay
  curl -d id=$id -d token=$token -d 'snlist=$serials' $base/user/urlstop
  curl -d id=$id -d token=$token $base/user/olist
What the speakers do: tail -f $var/speakers.log
The service runs until you press Ctrl-C.
NEXT
wait "$service_pid"
