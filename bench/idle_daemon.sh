#!/bin/bash
# idle_daemon.sh [BUILD]: boots the daemon of BUILD (default: build/release) in the simulated appliance and prints what
# it keeps resident before anybody has called it. Exit status 1 when that is not under 6 MiB.
set -eu
checkout=$(readlink -f -- "$(dirname -- "$0")/..")
build=$(readlink -m -- "${1-$checkout/build/release}")

# RssFile is code and data that other processes share; RssAnon is the daemon's alone.
# shellcheck disable=SC2016 # expanded inside
"$checkout/appliance/boot" --build "$build" bash -eu -c '
  limit_kib=6144
  daemon=$(pgrep -x vistalprod)
  grep -E "^(VmRSS|RssAnon|RssFile):" "/proc/$daemon/status"
  [ "$(awk "/^VmRSS:/ {print \$2}" "/proc/$daemon/status")" -lt $limit_kib ]'
