#!/bin/sh
# vistalprod.sh {start|stop|restart|status|reload-check}: the daemon, from the appliance's start and stop sequence. For
# a plain Bourne shell, as appliances have. It may be linked to any name but `vistalprod`: the daemon refuses to run
# beside a process of that name, and a script is one.
#
# Exit statuses, as of any init script: 0 done, or done before; 1 failed; 2 wrong usage; 4 not root; 5 not installed;
# 6 not configured. Of `status`: 0 it serves; 1 it died and left its socket; 3 it does not run; 4 it runs but does not
# serve. `reload-check` tells whether a restart would come up, without touching a daemon that runs.
here=$(dirname -- "$(readlink -f -- "$0")")
PATH=$here:$here/../bin:$PATH:/sbin:/usr/sbin
start_seconds=30
stop_seconds=60 # the programs that requests have started are waited for

# By the rule by which the daemon looks for itself; but a program that it is about to run still bears its name.
running() {
  for stat in /proc/[0-9]*/stat; do
    { read -r pid name state parent _ <"$stat"; } 2>/dev/null || continue
    if [ "$name" != '(vistalprod)' ] || [ "$state" = Z ]; then continue; fi
    { read -r _ name _ <"/proc/$parent/stat"; } 2>/dev/null && [ "$name" = '(vistalprod)' ] && continue
    return 0
  done
  return 1
}

# What a start needs, in the order in which the daemon would miss it.
check() {
  if [ "$(id -u)" != 0 ]; then echo "vistalprod: only root may do that" >&2 && return 4; fi
  for program in vistalprod ksctl; do
    command -v $program >/dev/null || { echo "vistalprod: $program is not installed" >&2 && return 5; }
  done
  install_path=$(/sbin/rdconf VistalServer Install_Path -c -d RDCONF_FAILD -f /etc/config/kpkg.conf 2>/dev/null)
  if [ ! -d "$install_path" ]; then
    echo "vistalprod: no folder is Install_Path of VistalServer in /etc/config/kpkg.conf" >&2 && return 6
  fi
}

start() {
  if running; then echo "vistalprod: runs already, pid $pid" && return 0; fi
  check || return
  # For as many clients as may wait. The daemon raises the soft limit itself.
  # shellcheck disable=SC3045 # the shells of appliances know -H
  case $(ulimit -Hn) in
    [1-9] | ?? | ??? | [123]???) ulimit -Hn 4096 2>/dev/null ;;
  esac
  if ! vistalprod -d || ! ksctl wait main -t $start_seconds || ! ksctl wait mail -t $start_seconds; then
    echo "vistalprod: does not come up; see $install_path/.log/.nxe_ks_vistalprod.log" >&2 && return 1
  fi
  echo "vistalprod: started"
}

stop() {
  if ! running; then echo "vistalprod: does not run" && return 0; fi
  stopped=$pid
  kill -TERM "$stopped" || return 4
  deadline=$(($(date +%s) + stop_seconds))
  while running && [ "$pid" = "$stopped" ]; do
    if [ "$(date +%s)" -ge $deadline ]; then
      echo "vistalprod: pid $pid still waits for a program that a request has started, see: ps --ppid $pid" >&2
      return 1
    fi
    sleep 0.1 2>/dev/null || sleep 1
  done
  echo "vistalprod: stopped"
}

status() {
  if ! running; then
    if [ -S "$(ksctl path main)" ]; then echo "vistalprod: died" && return 1; fi
    echo "vistalprod: does not run" && return 3
  fi
  if ! ksctl wait main -t 0 2>/dev/null; then echo "vistalprod: pid $pid does not serve" && return 4; fi
  echo "vistalprod: serves, pid $pid"
}

reload_check() {
  check || return
  # Its own check publishes the services, which would take them away from a daemon that runs.
  if ! running && ! vistalprod -t; then echo "vistalprod: does not come up" >&2 && return 1; fi
  echo "vistalprod: would come up"
}

case ${1-} in
  start | stop | status) "$1" ;;
  restart) stop && start ;;
  reload-check) reload_check ;;
  *) echo "usage: $0 {start|stop|restart|status|reload-check}" >&2 && exit 2 ;;
esac
