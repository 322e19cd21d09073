# Functions of the other scripts, which read this file. They print nothing on success.
# shellcheck shell=sh

# Ends the script: fail REASON...
fail() {
  printf '%s: %s\n' "scripts/${0##*/}" "$*" >&2
  exit 1
}

# Starts the script again as root unless it is root already: need_root "$@"
need_root() {
  [ "$(id -u)" -ne 0 ] || return 0
  command -v sudo >/dev/null || fail "needs root to install packages and to make private roots, and sudo is missing"
  exec sudo -- "$0" "$@"
}

# Runs a command. If it fails, shows its output and ends the script: quietly WHAT COMMAND...
quietly() {
  what=$1
  shift
  output=$(mktemp)
  if "$@" >"$output" 2>&1 </dev/null; then
    rm -f "$output"
  else
    cat "$output" >&2
    rm -f "$output"
    fail "$what failed"
  fi
}

# Installs the missing ones of the Debian packages for building and of the given ones: need_packages PACKAGE...
need_packages() {
  missing=
  for package in cmake g++ libboost-dev libboost-program-options-dev libcli11-dev libgtest-dev libsmartcols-dev \
    libsqlite3-dev ninja-build nlohmann-json3-dev pkgconf python3 "$@"; do
    dpkg-query -W -f '${Status}\n' "$package" 2>/dev/null | grep -q '^install ok installed$' ||
      missing="$missing $package"
  done
  [ -n "$missing" ] || return 0
  command -v apt-get >/dev/null || fail "needs these Debian packages:$missing"
  export DEBIAN_FRONTEND=noninteractive
  quietly "apt-get update" apt-get -qq update
  # shellcheck disable=SC2086 # one word per package
  quietly "installing$missing" apt-get -qq -y --no-install-recommends install $missing
}
