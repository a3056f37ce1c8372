# Sourced by the scripts beside it: how they say what they do, and how long it took.
# shellcheck shell=bash

say() {
  printf '%s: %s\n' "$(basename "$0")" "$*"
}

fail() {
  say "$*" >&2
  exit 1
}

# timed WHAT COMMAND...
timed() {
  local what=$1 begun=$SECONDS
  shift
  say "$what"
  "$@"
  say "took $((SECONDS - begun)) s"
}

# Says nothing unless the command fails.
quietly() {
  local log
  log=$(mktemp)
  "$@" >"$log" 2>&1 || {
    cat "$log" >&2
    rm -f "$log"
    fail "$1 failed"
  }
  rm -f "$log"
}
