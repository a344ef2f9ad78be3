// All commands, in the order in which a request's name is searched.
//
// Each name is a Command in the file of its family. A command that is not listed here does not compile; a name with no
// command or two commands does not link.
#pragma once

#include "handlers/command.h"

// clang-format off
#define MAIL_COMMANDS(ROW) \
  ROW(test)                \
  ROW(sendmail)

#define MAIN_COMMANDS(ROW)                   \
  ROW(test)                                  \
  ROW(exec_cli)                              \
  ROW(get_dispdeck_status)                   \
  ROW(system_call_evrec_tool)                \
  ROW(system_connrec_tool)                   \
  ROW(get_sess_id)                           \
  ROW(system_call_share_guard_add)           \
  ROW(system_call_share_guard_remove)        \
  ROW(system_call_vistalpro_disable)         \
  ROW(get_vpd_productnamed)                  \
  ROW(get_vpd_eepkey)                        \
  ROW(get_vpd_channel)                       \
  ROW(get_vpd_ext_area)                      \
  ROW(is_generic_model)                      \
  ROW(get_platform_display_name)             \
  ROW(system_call_cloud_analysis_register)   \
  ROW(system_call_cloud_analysis_send)       \
  ROW(system_call_cloud_analysis_flush)      \
  ROW(system_call_cloud_analysis_unregister) \
  ROW(system_trn_smb_setfolder_priv)         \
  ROW(system_call_share_folder_renew)        \
  ROW(system_call_kseek_list_add)            \
  ROW(vistal_auth_add_session)               \
  ROW(vistal_auth_get_session)               \
  ROW(get_sms_config)                        \
  ROW(get_all_users)                         \
  ROW(get_all_groups)                        \
  ROW(get_group_members)                     \
  ROW(system_call_nc_notify)                 \
  ROW(system_get_tiermount_cloud_usage)      \
  ROW(is_trn_model)                          \
  ROW(update_ip_ban_list)                    \
  ROW(notify_return)                         \
  ROW(read_hwsn)                             \
  ROW(system_call_cloud_get_device_list)     \
  ROW(system_call_cloud_get_kid_service)     \
  ROW(system_call_cloud_get_user_token)      \
  ROW(system_call_cloud_get_host_endpoint)   \
  ROW(system_call_cloud_get_host_site)       \
  ROW(system_call_cloud_get_access_token)    \
  ROW(system_call_cloud_kcm_tunnel_agent)    \
  ROW(reverse_proxy)                         \
  ROW(web_booth)                             \
  ROW(install_app)                           \
  ROW(cmv_cli)                               \
  ROW(system_call_cloud_get_device_info)     \
  ROW(vistal_agent_cli)                      \
  ROW(system_call_cloud_get_device_status)
// clang-format on

#define DECLARE(command) extern const Command command;
namespace mail_service {
MAIL_COMMANDS(DECLARE)
}
namespace main_service {
MAIN_COMMANDS(DECLARE)
}
#undef DECLARE
