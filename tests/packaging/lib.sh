# What the checks of the packages share; read by each of them, after "set -euo pipefail".
# shellcheck shell=bash

check="$(basename "$0")"
folder="$(mktemp -d "${TMPDIR:-/tmp}/guardian-check.XXXXXX")"
guardian_pid=""

fail() {
  echo "$check: $1" >&2
  exit 1
}

# CTest shows it as skipped.
skip() {
  echo "$check: skipped: $1"
  exit 77
}

needs_tools() {
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null || skip "$tool is not installed"
  done
}

# expect WHAT WANTED FOUND
expect() {
  [[ "$2" == "$3" ]] || fail "$1: expected"$'\n'"$2"$'\n'"and found"$'\n'"$3"
}

# await COMMAND...: whether the command succeeds within 30 seconds.
await() {
  local tries
  for ((tries = 300; tries > 0; --tries)); do
    ! "$@" || return 0
    sleep 0.1
  done
  return 1
}

# page NAME: the whole answer, its head too; nothing when nobody answers.
page() {
  (
    exec 3<>/dev/tcp/127.0.0.1/8900
    printf 'GET /%s HTTP/1.0\r\nHost: localhost\r\n\r\n' "$1" >&3
    timeout 10 cat <&3
  ) 2>/dev/null || true
}
page_has() { [[ "$(page "")" == *"$1"* ]]; }
page_answers() { [[ -n "$(page status.php)" ]]; }
needs_free_port() { ! page_answers || fail "port 8900 is in use"; }

# Reports of exceptions name functions; what a debugger needs besides would make the file thrice as big.
expect_function_names() {
  local program="$1"
  [[ "$(nm --demangle "$program")" == *" guardian::TGuardianService::"* ]] || fail "$program names no functions"
  [[ "$(readelf --sections --wide "$program")" != *" .debug_info "* ]] || fail "$program holds debug information"
}

# The stand-in's state lies in the folder "home".
use_home() {
  mkdir -p "$folder/home" "$folder/tmp"
  export VELLUMARKCL_HOME="$folder/home" TMPDIR="$folder/tmp"
}
daemon_pid() { cat "$folder/home/daemon.pid" 2>/dev/null || true; }
daemon_runs() {
  local pid
  pid="$(daemon_pid)"
  [[ -n "$pid" && "$pid" != "${1:-}" ]] && kill -0 "$pid" 2>/dev/null
}
ended() { ! kill -0 "$1" 2>/dev/null; }

# expect_daemon [BEFORE]: a daemon runs, another than the one before.
expect_daemon() { await daemon_runs "$@" || fail "no daemon was started: $(page "")"; }

kill_daemon() {
  local pid
  pid="$(daemon_pid)"
  [[ -z "$pid" ]] || ! kill -KILL "$pid" 2>/dev/null || await ended "$pid" || fail "$pid does not end"
}

# The Guardian first: it would start the daemon again.
end_everything() {
  local status=$?
  [[ -z "$guardian_pid" ]] || kill -KILL "$guardian_pid" 2>/dev/null || true
  kill_daemon
  rm -rf "$folder"
  exit "$status"
}
trap end_everything EXIT
trap 'exit 1' INT TERM HUP

# supervises COMMAND...: the command, a Guardian with the stand-in for its daemon, starts that, brings
# it back when it is killed, and ends when it is asked to.
supervises() {
  local before
  "$@" >"$folder/output" 2>&1 &
  guardian_pid=$!
  await page_answers || fail "the Guardian does not answer: $(<"$folder/output")"
  expect_daemon
  before="$(daemon_pid)"
  kill -KILL "$before"
  expect_daemon "$before"
  expect "answer to status" $'Querying Guardian Service.\nGuardian running and accessible via port 8900. ' \
    "$("$@" status)"
  expect "answer to stop" $'Stopping Guardian Service.\nGuardian stopped.' "$("$@" stop)"
  wait "$guardian_pid" || fail "the Guardian ended with status $?: $(<"$folder/output")"
  guardian_pid=""
  kill_daemon
}
