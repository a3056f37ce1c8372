# Sourced by the other scripts: prints their steps and how long these took.
# shellcheck shell=bash

# Below it are caches, ours and those of the programs that we call.
export HOME="${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}"

say() {
  printf '%s: %s\n' "$(basename "$0")" "$*"
}

fail() {
  say "$*" >&2
  exit 1
}

# help_if_asked ARGUMENT...: with --help as the first, prints the comment at the top of
# the script and ends it. In the project's folder.
help_if_asked() {
  case ${1-} in
    -h | --help)
      sed -n '/^#!/d; /^#/!q; s/^# \{0,1\}//p' "scripts/$(basename "$0")"
      exit
      ;;
  esac
}

# need_writable FOLDER OTHERWISE: makes the folder, or tells what else to do.
need_writable() {
  mkdir -p "$1" 2>/dev/null && [ -w "$1" ] ||
    fail "cannot write to the folder $1: change its permissions, or $2"
}

# timed WHAT COMMAND...
timed() {
  local what=$1 begun=$SECONDS
  shift
  say "$what"
  "$@"
  say "took $((SECONDS - begun)) s"
}

# Prints the command's output only if it fails.
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

[ -w "${TMPDIR:-/tmp}" ] || fail "cannot write to ${TMPDIR:-/tmp}: set TMPDIR to a folder for temporary files"
