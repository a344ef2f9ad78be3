#!/bin/sh
# vistalprod.sh ACTION [--force] [-t SECONDS]: controls the daemon in the appliance's start and stop sequence. Written for
# the plain Bourne shell of appliances. A link to it may have any name but `vistalprod`: the daemon refuses to run beside
# a process with that name.
#
#   start         waits for a daemon that is still stopping, starts it, returns when it serves clients
#   stop          stops the daemon and waits 60 seconds, or SECONDS, for its end; --force then kills it
#   restart       stop, then start if the daemon has ended
#   try-restart   the same if the daemon runs, otherwise nothing
#   status        tests whether both services answer
#   reload-check  checks whether a restart would succeed, without touching a running daemon
#
# Exit statuses, as for any init script: 0 success, or nothing to do; 1 failure; 2 wrong usage; 4 not root; 5 something
# is not installed; 6 not configured. `status` has its own: 0 both services answer; 1 the daemon died and left its socket
# behind; 3 it does not run; 4 it runs but does not answer; 150 it is stopping.
self=$(readlink -f -- "$0")
here=$(dirname -- "$self")
PATH=$here:$here/../bin:$PATH:/sbin:/usr/sbin
program=$(readlink -f -- "$(command -v vistalprod || echo "$here/vistalprod")")
start_seconds=30
stop_seconds=60 # a stopping daemon waits for the programs that requests have started
kill_seconds=10 # for the kernel to end a process
answer_seconds=5 # ksctl's minimum
configuration=/etc/config/kpkg.conf
stopping_file=/var/run/vistalprod.stopping # which daemon was told to stop

say() { echo "vistalprod: $*"; }
fail() { # STATUS TEXT...
  status=$1
  shift
  echo "vistalprod: $*" >&2
  return "$status"
}
nap() { sleep 0.1 2>/dev/null || sleep 1; }

is_of_root() { # PID
  while read -r key user effective_user _; do
    if [ "$key" = Uid: ]; then [ "$user $effective_user" = '0 0' ] && return 0; fi
  done 2>/dev/null <"/proc/$1/status"
  return 1
}

# Whether process $1 is a root process that runs the installed executable, or a replaced version of it. The name is not
# checked, because any user's process may have the daemon's name.
is_daemon() {
  executable=$(readlink "/proc/$1/exe") || return 1
  # shellcheck disable=SC3013 # the shells of appliances know -ef
  if [ "$executable" = "$program (deleted)" ]; then
    [ "/proc/$1/root/." -ef /. ] || return 1
  elif ! [ "/proc/$1/exe" -ef "$program" ]; then
    return 1
  fi
  is_of_root "$1"
}

# Sets `pid` to the daemon's, and `other` to that of a process that prevents the daemon from running.
find_daemon() {
  pid='' other=''
  for stat in /proc/[0-9]*/stat; do
    { read -r candidate name state parent _ <"$stat"; } 2>/dev/null || continue
    if [ "$name" != '(vistalprod)' ] || [ "$state" = Z ]; then continue; fi
    if ! is_daemon "$candidate"; then
      if is_of_root "$candidate"; then other=$candidate; fi # only root's processes prevent it from running
    elif ! is_daemon "$parent"; then # otherwise it is a fork of the daemon that will execute a program
      pid=$candidate
      return 0
    fi
  done
  return 1
}

# Identifies a process uniquely.
identity() { cut -d ' ' -f 1,22 "/proc/$pid/stat" 2>/dev/null; }
was_told_to_stop() { [ -e $stopping_file ] && [ "$(cat $stopping_file)" = "$(identity)" ]; }

await_end() { # PID SECONDS
  deadline=$(($(date +%s) + $2))
  while is_daemon "$1"; do
    if [ "$(date +%s)" -gt $deadline ]; then return 1; fi
    nap
  done
}

# Calls both services at the same time; sets `silent` to those that do not answer.
ask() {
  silent=''
  ksctl call -t $answer_seconds mail test >/dev/null 2>&1 &
  asked=$!
  ksctl call -t $answer_seconds main test >/dev/null 2>&1 || silent='main '
  wait $asked || silent=${silent}mail
  [ -z "$silent" ]
}

socket_of() { ksctl path "$1"; }

names() { # prints the names of the processes on standard input
  sort -un | head -n 10 | while read -r process; do
    { read -r name <"/proc/$process/comm"; } 2>/dev/null && printf ' %s[%s]' "$name" "$process"
  done
}

# The processes that are connected to socket $1. Only ss knows which ends belong together; without it, lists processes
# with an unnamed end of any local connection.
connected() {
  if command -v ss >/dev/null; then
    # shellcheck disable=SC2016 # for awk
    ss -xp | awk -v socket="$1" '
      $5 == socket { peers[$8] }
      { users[$6] = $9 }
      END { for (end in peers) print users[end] }' | tr ',' '\n' | sed -n 's/^pid=//p'
  else
    # shellcheck disable=SC2012,SC2016 # ls shows the targets of descriptors; for awk
    ls -l /proc/[0-9]*/fd 2>/dev/null | awk '
      NR == FNR { if ($6 == "03" && NF == 7) ends["socket:[" $7 "]"]; next }
      /^\/proc/ { split($0, path, "/") }
      $NF in ends { print path[3] }' /proc/net/unix -
  fi | grep -vx "$pid" | names
}

programs() { # prints the names of the programs that the daemon runs
  for stat in /proc/[0-9]*/stat; do
    # shellcheck disable=SC2002 # the process may have ended
    cat "$stat" 2>/dev/null | sed -n 's/^\([0-9]*\) (.*) . \([0-9]*\) .*/\2 \1/p'
  done | sed -n "s/^$pid //p" | names
}

# Prints what keeps each service of $1 from answering or ending.
explain() {
  known=
  command -v ss >/dev/null || known=', or have any other local connection (there is no ss to tell)'
  for service in $1; do
    socket=$(socket_of "$service")
    [ -S "$socket" ] || was_told_to_stop ||
      echo "vistalprod: $service: $socket is gone: removed, or the daemon was told to stop"
    echo "vistalprod: $service: connected$known:$(connected "$socket")"
  done
  echo "vistalprod: programs that it runs:$(programs)"
}

# Whether files can be created in folder $1, tested by copying $2 there.
can_write() { # FOLDER FILE
  probe=$1/.vistalprod.$$
  reason=$(cp "$2" "$probe" 2>&1) && rm -f "$probe" && return 0
  rm -f "$probe" 2>/dev/null
  fail 1 "$1 cannot be written to: $reason"
}

check_installed() {
  command -v vistalprod >/dev/null || fail 5 "vistalprod is not installed" || return
  # As ldd does, which not every appliance has.
  missing=$(LD_TRACE_LOADED_OBJECTS=1 LD_BIND_NOW=1 LD_WARN=1 "$program" 2>&1 | 
    grep -E 'not found|undefined symbol' | head -n 3)
  [ -z "$missing" ] || fail 5 "libraries that $program needs:" "$missing" || return
  [ -x /sbin/rdconf ] || fail 5 "/sbin/rdconf, which reads $configuration, is not installed"
}

check_configured() {
  [ -r $configuration ] || fail 6 "there is no $configuration" || return
  # As the daemon does: reads 127 bytes of the first line.
  install_path=$(/sbin/rdconf VistalServer Install_Path -c -d RDCONF_FAILD -f $configuration 2>/dev/null |
    head -n 1 | cut -b 1-127)
  case $install_path in
    '' | RDCONF_FAILD*) fail 6 "$configuration has no Install_Path in section VistalServer" || return ;;
  esac
  [ -d "$install_path" ] ||
    fail 6 "Install_Path of VistalServer in $configuration is $install_path, which is not a folder"
}

check_folders() {
  # The daemon also runs without a log.
  log=$install_path/.log
  if [ -e "$log" ]; then folder=$log; else folder=$install_path; fi
  can_write "$folder" "$self" || echo "vistalprod: so there will be no log" >&2
  for service in main mail; do
    socket=$(socket_of $service) && folder=${socket%/*} || return
    if [ -e "$socket" ] && [ ! -S "$socket" ]; then fail 1 "$socket is in the way: it is not a socket" || return; fi
    if [ ! -e "$folder" ]; then folder=${folder%/*}; fi
    can_write "$folder" /dev/null || return
  done
}

# Checks what a start needs, in the order in which the daemon needs it.
check() {
  check_installed && check_configured || return
  if [ -n "$other" ]; then
    fail 1 "the daemon will not run beside pid $other, $(readlink "/proc/$other/exe"), which has its name" || return
  fi
  check_folders
}

# Starts the daemon in the foreground to get its error message; in the background it has no standard error.
why_it_died() {
  { reason=$(vistalprod -t 2>&1); } 2>/dev/null # hides the shell's own message about a killed process
  status=$?
  if [ $status = 0 ]; then
    fail 1 "died while starting, but another try in the foreground did not; see $log/.nxe_ks_vistalprod.log"
  else
    fail 1 "died while starting; in the foreground it ends with status $status: $reason"
  fi
}

launch() {
  for service in main mail; do
    socket=$(socket_of $service)
    if [ -S "$socket" ]; then rm -f "$socket"; fi # left by a crash; an old program may still hold it open
  done
  umask 022
  # Enough descriptors for all clients that may wait. The daemon raises the soft limit itself.
  # shellcheck disable=SC3045 # the shells of appliances know -H
  case $(ulimit -Hn) in
    [1-9] | ?? | ??? | [123]???) ulimit -Hn 4096 2>/dev/null ;;
  esac
  vistalprod -d || fail 1 "does not start, status $?" || return
  deadline=$(($(date +%s) + start_seconds))
  until ksctl wait main -t 0 2>/dev/null && ksctl wait mail -t 0 2>/dev/null; do
    if ! find_daemon; then why_it_died || return; fi
    if [ "$(date +%s)" -gt $deadline ]; then
      fail 1 "pid $pid accepts no connections after $start_seconds s" || return
    fi
    nap
  done
  find_daemon || why_it_died
}

start() {
  if find_daemon; then
    if was_told_to_stop || [ ! -S "$(socket_of main)" ]; then
      say "pid $pid is stopping, or its socket was removed: waiting for its end"
      await_end "$pid" "$stop_seconds" ||
        fail 1 "pid $pid has not ended in $stop_seconds s; see: $0 stop --force" || return
      find_daemon
    elif ask; then
      say "runs already, pid $pid" && return 0
    else
      explain "$silent" >&2
      [ -S "$(socket_of mail)" ] || fail 1 "pid $pid runs, but not as it should: restart it" || return
      say "runs already, pid $pid, but is not answering" && return 0
    fi
  fi
  check && launch && say "started, pid $pid"
}

stop() {
  if ! find_daemon; then say "does not run" && return 0; fi
  stopped=$pid
  identity >$stopping_file
  kill -TERM "$stopped" 2>/dev/null
  if await_end "$stopped" "$stop_seconds"; then
    say "stopped"
  elif [ -z "$force" ]; then
    explain main >&2
    fail 1 "pid $stopped has not ended in $stop_seconds s, and is still stopping; see: $0 stop --force" || return
  else
    kill -KILL "$stopped" 2>/dev/null
    await_end "$stopped" $kill_seconds || fail 1 "pid $stopped cannot be killed" || return
    rm -f "$(socket_of main)" # otherwise the daemon would seem to have crashed
    say "killed"
  fi
  rm -f $stopping_file
}

status() {
  if ! find_daemon; then
    if [ -S "$(socket_of main)" ]; then say "died" && return 1; fi
    say "does not run" && return 3
  fi
  if was_told_to_stop; then say "pid $pid is stopping; it runs:$(programs)" && return 150; fi
  case $(readlink "/proc/$pid/exe") in
    *' (deleted)') say "pid $pid runs an executable that has been replaced: restart it" ;;
  esac
  if ask; then say "serves, pid $pid" && return 0; fi
  say "pid $pid runs, but does not answer: ${silent% }"
  explain "$silent"
  return 4
}

usage() {
  echo "usage: $0 {start|stop|restart|try-restart|status|reload-check} [--force] [-t SECONDS]" >&2
  exit 2
}

action=${1-} force=
case $action in
  start | stop | restart | try-restart | status | reload-check) shift ;;
  *) usage ;;
esac
while [ $# -gt 0 ]; do
  case $1 in
    --force) force=yes ;;
    -t)
      shift
      case ${1-} in '' | *[!0-9]* | 0?*) usage ;; esac
      stop_seconds=$1
      ;;
    *) usage ;;
  esac
  shift
done
if [ "$(id -u)" != 0 ]; then fail 4 "only root can do that" || exit; fi
command -v ksctl >/dev/null || fail 5 "ksctl is not installed" || exit
case $action in
  start | stop | status) $action ;;
  restart) stop && start ;;
  try-restart) if find_daemon; then stop && start; else say "does not run"; fi ;;
  reload-check) find_daemon; check && say "would come up" ;;
esac
