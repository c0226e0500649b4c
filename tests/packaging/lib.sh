# What the checks of the packages share; read by each of them, after "set -euo pipefail".
# shellcheck shell=bash

readonly not_checked=77
check="$(basename "$0")"
# The check's own, unless the reader of this file has been given one.
[[ -n "${folder:-}" ]] || own_folder="$(mktemp -d "${TMPDIR:-/tmp}/guardian-check.XXXXXX")"
folder="${folder:-$own_folder}"
guardian_pid=""

fail() {
  echo "$check: $1" >&2
  exit 1
}

# CTest shows it as skipped.
skip() {
  echo "$check: skipped: $1"
  exit "$not_checked"
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

# await SECONDS COMMAND...: whether the command succeeds within the time.
await() {
  local tries
  for ((tries = $1 * 10; tries > 0; --tries)); do
    ! "${@:2}" || return 0
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

# Reports of exceptions name functions; what a debugger needs besides would make the file thrice as big.
expect_function_names() {
  local program="$1"
  [[ "$(nm --demangle "$program")" == *" guardian::TGuardianService::"* ]] || fail "$program names no functions"
  [[ "$(readelf --sections --wide "$program")" != *" .debug_info "* ]] || fail "$program holds debug information"
}

page_answers() { [[ -n "$(page status.php)" ]]; }

needs_free_port() { ! page_answers || fail "port 8900 is in use"; }

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

kill_and_await() {
  [[ -n "$1" ]] || return 0
  kill -KILL "$1" 2>/dev/null || return 0
  await 10 ended "$1" || echo "$check: process $1 does not end" >&2
}

# The Guardian first: it would start the daemon again.
end_everything() {
  local status=$?
  kill_and_await "$guardian_pid"
  kill_and_await "$(daemon_pid)"
  rm -rf "$folder"
  exit "$status"
}
if [[ -n "${own_folder:-}" ]]; then
  trap end_everything EXIT
  trap 'exit 1' INT TERM HUP
fi

# supervises COMMAND...: the command, a Guardian with the stand-in for its daemon, starts that, brings
# it back when it is killed, and ends when it is asked to.
supervises() {
  local before
  "$@" >"$folder/output" 2>&1 &
  guardian_pid=$!
  await 30 page_answers || fail "the Guardian does not answer: $(<"$folder/output")"
  await 30 daemon_runs || fail "the daemon was not started: $(page "")"
  before="$(daemon_pid)"
  kill -KILL "$before"
  await 30 daemon_runs "$before" || fail "the killed daemon was not brought back: $(page "")"
  expect "answer to status" $'Querying Guardian Service.\nGuardian running and accessible via port 8900. ' \
    "$("$@" status)"
  expect "answer to stop" $'Stopping Guardian Service.\nGuardian stopped.' "$("$@" stop)"
  await 10 ended "$guardian_pid" || fail "the Guardian did not end"
  wait "$guardian_pid" || fail "the Guardian ended with status $?: $(<"$folder/output")"
  guardian_pid=""
  kill_and_await "$(daemon_pid)"
}
