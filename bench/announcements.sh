#!/usr/bin/env bash
# One POST /api/v1/broadcasts to a whole fleet on loopback: how long until its last speaker has the play, and how far
# the speakers' first bytes are apart. Medians of 15; one line a size.
#
# bench/announcements.sh [--sizes "50 19500"] [--build build/release]
set -euo pipefail
. "$(dirname "$0")/servers.sh"

sizes="50 19500" build=$root/build/release
read_options "sizes build" "$@"
build=$(realpath "$build")

token=bench-token-of-forty-three-characters-_____
hash=$(printf %s "$token" | sha256sum | cut -d' ' -f1)

prepare_account() { # SPEAKERS: an administrator with them, and his token
  sqlite3 -bail "$service/.Elvor.db" <<SQL
INSERT INTO sbox_users (id, user_name, user_level) VALUES (90, 'bench', 1);
INSERT INTO apitoken (account, hash, created) VALUES (90, '$hash', 0);
WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < $1)
INSERT INTO sbox_device_info (user_id, device_name, device_seed) SELECT 90, i, printf('%032x', i) FROM n;
SQL
}

echo "| Speakers | Request to the last speaker | First byte to the last's |"
echo "|---|---|---|"
for size in $sizes; do
  prepare_speakerd
  prepare_account "$size"
  start_speakerd "$build"
  read -r last spread < <("$build/fleet" announcements --port "$device_port" --control "$http_port" --pid "$pid" \
    --count "$size" --rest 1 --token "$token")
  stop
  echo "| $size | $last ms | $spread ms |"
done
