# Bash completion for ksctl(1): subcommands, options, services, and the commands of the daemon's two services.

_ksctl_main_commands='
  test exec_cli get_sess_id notify_return
  get_vpd_productnamed get_vpd_eepkey get_vpd_channel get_vpd_ext_area
  is_generic_model is_trn_model get_platform_display_name get_dispdeck_status read_hwsn
  get_all_users get_all_groups get_group_members get_sms_config vistal_auth_add_session vistal_auth_get_session
  system_call_share_guard_add system_call_share_guard_remove system_call_share_folder_renew
  system_call_vistalpro_disable system_trn_smb_setfolder_priv system_call_kseek_list_add
  system_call_cloud_analysis_register system_call_cloud_analysis_send system_call_cloud_analysis_flush
  system_call_cloud_analysis_unregister system_call_nc_notify system_get_tiermount_cloud_usage
  system_call_cloud_get_device_list system_call_cloud_get_device_info system_call_cloud_get_device_status
  system_call_cloud_get_kid_service system_call_cloud_get_user_token system_call_cloud_get_host_endpoint
  system_call_cloud_get_host_site system_call_cloud_get_access_token system_call_cloud_kcm_tunnel_agent
  system_call_evrec_tool system_connrec_tool update_ip_ban_list reverse_proxy web_booth install_app
  cmv_cli vistal_agent_cli'
_ksctl_mail_commands='test sendmail'
_ksctl_services='main mail notify
  VistalServer-vistalprod VistalServer_send_mail-vistalprod VistalServer_notify-vistalprod'

_ksctl() {
  local current=${COMP_WORDS[COMP_CWORD]} subcommand=${COMP_WORDS[1]-} options='' operands=() words='' i
  case $subcommand in
    call) options='--timeout --fd --fail --raw --verbose' ;;
    wait) options='--timeout' ;;
    serve) options='--reply --count --replace' ;;
    post-notify) options='--type --action --flag --info' ;;
    post-log) options='--level --time --user --ip --name --content --service --action' ;;
  esac
  for ((i = 2; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -[fhrv]* | --fail | --raw | --verbose | --replace | --help | -t?*) ;;
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
    words='call wait path serve post-notify post-log --help --version'
  elif [ "$i" -gt "$COMP_CWORD" ]; then
    words='' # the value of an option
  elif [ "${current#-}" != "$current" ]; then
    words="$options --help"
  else
    case $subcommand:${#operands[@]} in
      call:0 | wait:0 | path:0 | serve:0) words=$_ksctl_services ;;
      post-log:0) words='event connection' ;;
      call:1)
        case ${operands[0]} in
          main | VistalServer-vistalprod) words=$_ksctl_main_commands ;;
          mail | VistalServer_send_mail-vistalprod) words=$_ksctl_mail_commands ;;
          *notify*) words='notify_event notify_log notify_conn' ;;
        esac
        ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _ksctl ksctl
