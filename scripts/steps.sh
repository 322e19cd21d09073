# What scripts/test and scripts/quickstart have in common; read by them, not run. Quiet about what went well.
# shellcheck shell=sh

# Ends the script: fail REASON...
fail() {
  printf '%s: %s\n' "scripts/${0##*/}" "$*" >&2
  exit 1
}

# Starts the script again as root unless it is root already: need_root "$@"
need_root() {
  [ "$(id -u)" -ne 0 ] || return 0
  command -v sudo >/dev/null || fail "needs to run as root, and sudo is not there: it installs packages and makes private roots"
  exec sudo -- "$0" "$@"
}

# Runs a command and shows what it printed only when it failed, and then ends: quietly WHAT COMMAND...
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

# Installs what is missing of the Debian packages that building takes, and of those named: need_packages PACKAGE...
need_packages() {
  missing=
  for package in cmake g++ ninja-build libboost-dev libboost-program-options-dev libgtest-dev libsqlite3-dev python3 "$@"; do
    dpkg-query -W -f '${Status}\n' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing="$missing $package"
  done
  [ -n "$missing" ] || return 0
  command -v apt-get >/dev/null || fail "needs these Debian packages:$missing"
  export DEBIAN_FRONTEND=noninteractive
  quietly "apt-get update" apt-get -qq update
  # shellcheck disable=SC2086 # one word per package
  quietly "installing$missing" apt-get -qq -y --no-install-recommends install $missing
}
