# What the checks of the packages share; each of them reads it first.
# shellcheck shell=bash disable=SC2034
set -euo pipefail

folder="$(mktemp -d "${TMPDIR:-/tmp}/guardian-check.XXXXXX")"
guardian_pid=""
# The stand-in's state lies in the folder "home".
export VELLUMARKCL_HOME="$folder/home" TMPDIR="$folder/tmp"
mkdir "$VELLUMARKCL_HOME" "$TMPDIR"

fail() {
  echo "$1" >&2
  exit 1
}

# CTest shows it as skipped.
skip() {
  echo "skipped: $1"
  exit 77
}

needs_tools() { type "$@" >/dev/null || skip "a tool is missing"; }

# expect WHAT WANTED FOUND
expect() { [[ "$2" == "$3" ]] || fail "$1: expected"$'\n'"$2"$'\n'"and found"$'\n'"$3"; }

# await COMMAND...: whether the command succeeds within 30 seconds.
await() {
  for _ in {1..300}; do
    ! "$@" || return 0
    sleep 0.1
  done
  return 1
}

# page NAME: its text; nothing when nobody answers.
page() { curl --silent --noproxy "*" --max-time 10 "http://127.0.0.1:8900/$1" || true; }
# page_has TEXT [NAME]: without a name, the main page.
page_has() { [[ "$(page "${2:-}")" == *"$1"* ]]; }
page_answers() { [[ -n "$(page status.php)" ]]; }

# find_package FOLDER PATTERN: sets package to what scripts/package left there.
find_package() {
  package="$(find "$1" -name "$2" 2>/dev/null || true)"
  [[ -n "$package" ]] || skip "no $2; scripts/package builds it"
}

# Every package has these: in its folder of documents, beside them, and what tells somebody.
manuals=({CHANGELOG,CONTRIBUTING,README}.md VERSIONS copyright docs/{growth.svg,page.png} docs/{architecture,fleet,operating,performance,protocol,security}.md)
prometheus=(prometheus/{grafana-board.json,prometheus.yml,vellumark-guardian.rules.yml})
notify=(notify/{mail,push,webhook}\*)

# expect_contents FILE...: the archive on standard input holds these; all are root's, and those with a
# sign "*" can be run.
expect_contents() {
  expect "files" "$(printf '%s\n' "$@" | LC_ALL=C sort)" "$(tar -tv --numeric-owner |
    sed -nE 's|^-rw-r--r-- 0/0 .* ||p; s|^-rwxr-xr-x 0/0 .* (.*)|\1*|p; t; /^d/!p' | LC_ALL=C sort)"
}

daemon_pid() { cat "$VELLUMARKCL_HOME/daemon.pid" 2>/dev/null || true; }
daemon_runs() { [[ "$(daemon_pid)" != "${1:-}" ]] && ! ended "$(daemon_pid)"; }
ended() { ! kill -0 "$1" 2>/dev/null; }

# expect_daemon [BEFORE]: a daemon runs, another than the one before.
# shellcheck disable=SC2119,SC2120
expect_daemon() { await daemon_runs "$@" || fail "no daemon was started: $(page "")"; }

# end PID: kills the process, if there is one.
end() { ! kill -KILL "$1" 2>/dev/null || await ended "$1" || fail "$1 does not end"; }

# The Guardian first: it would start the daemon again.
end_everything() {
  end "$guardian_pid"
  end "$(daemon_pid)"
  rm -rf "$folder"
}
trap end_everything EXIT
trap 'exit 1' INT TERM HUP

# launches COMMAND...: the command, a Guardian with the stand-in for its daemon, starts that.
launches() {
  ! page_answers || fail "port 8900 is in use"
  "$@" >"$folder/output" 2>&1 &
  guardian_pid=$!
  await page_answers || fail "the Guardian does not answer: $(<"$folder/output")"
  expect_daemon
}

# supervises COMMAND...: the same, and it ends when it is asked to.
supervises() {
  launches "$@"
  expect "answer to stop" $'Stopping Guardian Service.\nGuardian stopped.' "$("$@" stop)"
  wait "$guardian_pid" || fail "the Guardian ended with status $?: $(<"$folder/output")"
  guardian_pid=""
  end "$(daemon_pid)"
}
