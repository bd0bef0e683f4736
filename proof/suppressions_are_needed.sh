#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# usage: suppressions_are_needed.sh SUPPRESSIONS "COMMAND"...
# With all suppressions the thread sanitizer is silent about every command; without any one of them it is not.
set -u
list=$1
shift
some=$(mktemp)
trap 'rm -f "$some"' EXIT

reports() {  # whether the sanitizer reports with the suppressions in file $1
  local suppressions=$1 command
  shift
  for command in "$@"; do
    TSAN_OPTIONS="suppressions=$suppressions halt_on_error=1 exitcode=66" $command >/dev/null 2>&1
    [ $? -eq 66 ] && return 0
  done
  return 1
}

if reports "$list" "$@"; then
  echo "a race that no line of $list names"
  exit 1
fi
status=0
while read -r entry; do
  grep -vxF "$entry" "$list" >"$some"
  for try in 1 2 3 4 5 missing; do
    [ "$try" = missing ] && break
    reports "$some" "$@" && break
  done
  [ "$try" = missing ] && { echo "not needed: $entry"; status=1; } || echo "needed: $entry"
done < <(grep '^[a-z]' "$list")
exit $status
