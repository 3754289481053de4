#!/usr/bin/env bash
# Installs the Debian packages and modules that are missing, and builds the console when its sources have changed; says
# nothing when there is nothing to do.
# usage: scripts/setup.sh [run|test]   what to be ready for (default: run; test includes run)
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  # to build
  g++ cmake ninja-build pkg-config qtbase5-dev libqt5websockets5-dev libmicrohttpd-dev libmpg123-dev libical-dev
  libcrypt-dev
  # to run
  libqt5sql5-sqlite libqt5sql5-mysql lame ffmpeg espeak-ng nodejs npm ca-certificates
  # for the show
  sox sqlite3 curl jq
)
if [ "${1:-run}" = test ]; then
  packages+=(redis-server mariadb-server faketime python3-dateutil ccache git clang clang-format clang-tidy libclang-rt-14-dev
    chromium)
fi

has() {
  case $1 in
    nodejs) command -v node >/dev/null && return 0 ;; # Node.js may come from elsewhere
    npm) command -v npm >/dev/null && return 0 ;;
  esac
  [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null || true)" = installed ]
}

missing=()
for package in "${packages[@]}"; do
  has "$package" || missing+=("$package")
done

if [ ${#missing[@]} -gt 0 ]; then
  as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
      echo "These packages are missing and need root to install: ${missing[*]}" >&2
      exit 1
    }
    as_root=(sudo)
  fi
  echo "Installing ${missing[*]}"
  log=$(mktemp)
  trap 'rm -f "$log"' EXIT
  install() {
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q &&
      "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${missing[@]}"
  }
  install </dev/null >"$log" 2>&1 || {
    tail -n 30 "$log" >&2
    echo "Could not install: ${missing[*]}" >&2
    exit 1
  }
fi

# What a package.json names, as its lock file has it.
modules() { # DIRECTORY
  cmp -s "$1/package-lock.json" "$1/node_modules/.installed-lock" && return
  echo "Installing the modules of $1/"
  (cd "$1" && npm ci --silent --no-audit --no-fund </dev/null) || return
  cp "$1/package-lock.json" "$1/node_modules/.installed-lock"
}

# The console, into the document root; again when a source is newer than what was built.
console() {
  local built=docroot/console/index.html
  [ -f $built ] && [ -z "$(find console -path console/node_modules -prune -o -path console/tests -prune -o -type f -newer $built -print -quit)" ] && return
  modules console || return
  echo "Building the console"
  (cd console && npm run --silent check && npm run --silent build) || return
}

failed=0
modules programs || {
  echo "Could not install them; without them there is no MySQL. \"npm ci\" in programs/ tells why." >&2
  failed=1
}
console || {
  echo "Could not build it; without it there is no page at /console/. \"npm ci && npm run build\" in console/ tells why." >&2
  failed=1
}
[ "${1:-run}" = run ] || exit $failed
