# Bash completion for ksctl(1): subcommands, options, services, and the commands of the daemon's two services.

# _ksctl_commands [SERVICE]: the commands of one of the daemon's services, or of both.
_ksctl_commands() { ksctl list 2>/dev/null | sed -n "s/^${1-[^ ]*} \([^ ]*\).*/\1/p"; }
_ksctl_services='main mail notify
  VistalServer-vistalprod VistalServer_send_mail-vistalprod VistalServer_notify-vistalprod'

_ksctl() {
  local current=${COMP_WORDS[COMP_CWORD]} subcommand=${COMP_WORDS[1]-} options='' operands=() words='' i
  case $subcommand in
    call) options='--timeout --fd --fail --raw --verbose' ;;
    wait) options='--timeout' ;;
    list) options='--json' ;;
    serve) options='--reply --count --replace' ;;
    post-notify) options='--type --action --flag --info' ;;
    post-log) options='--level --time --user --ip --name --content --service --action' ;;
  esac
  for ((i = 2; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -[fhrv]* | --fail | --raw | --verbose | --replace | --json | --help | -t?*) ;;
      --)
        operands+=("${COMP_WORDS[@]:i + 1:COMP_CWORD - i - 1}")
        break
        ;;
      -?*) # the others take a value, which may stand behind a "="
        i=$((i + 1))
        if [ "${COMP_WORDS[i]-}" = = ]; then i=$((i + 1)); fi
        ;;
      *) operands+=("${COMP_WORDS[i]}") ;;
    esac
  done
  if [ "$COMP_CWORD" = 1 ]; then
    words='call wait path list serve post-notify post-log --help --version'
  elif [ "$i" -gt "$COMP_CWORD" ]; then
    words='' # the value of an option
  elif [ "${current#-}" != "$current" ]; then
    words="$options --help"
  else
    case $subcommand:${#operands[@]} in
      call:0 | wait:0 | path:0 | serve:0) words=$_ksctl_services ;;
      list:*) words=$(_ksctl_commands) ;;
      post-log:0) words='event connection' ;;
      call:1)
        case ${operands[0]} in
          main | VistalServer-vistalprod) words=$(_ksctl_commands main) ;;
          mail | VistalServer_send_mail-vistalprod) words=$(_ksctl_commands mail) ;;
          *notify*) words='notify_event notify_log notify_conn' ;;
        esac
        ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _ksctl ksctl
