#include "daemon/command_tables.h"

#include "handlers/handlers.h"

namespace {

constexpr CommandRow kMailCommands[] = {
    {.name = "test", .handler = nos_test_sendmail_srv_handler},
    {.name = "sendmail", .handler = nos_sendmail_handler},
};

constexpr CommandRow kMainCommands[] = {
    {.name = "test", .handler = test_handler},
    {.name = "exec_cli", .handler = exec_cli_handler},
    {.name = "get_dispdeck_status", .handler = nos_get_dispdeck_status_handler},
    {.name = "system_call_evrec_tool", .handler = nos_system_call_evrec_tool_handler},
    {.name = "system_connrec_tool", .handler = nos_system_connrec_tool_handler},
    {.name = "get_sess_id", .handler = nos_get_sess_id_handler},
    {.name = "system_call_share_guard_add", .handler = nos_tool_command_handler},
    {.name = "system_call_share_guard_remove", .handler = nos_tool_command_handler},
    {.name = "system_call_vistalpro_disable", .handler = nos_tool_command_handler},
    {.name = "get_vpd_productnamed", .handler = nos_get_vpd_productnamed_handler},
    {.name = "get_vpd_eepkey", .handler = nos_get_vpd_eepkey_handler},
    {.name = "get_vpd_channel", .handler = nos_get_vpd_channel_handler},
    {.name = "get_vpd_ext_area", .handler = nos_get_vpd_ext_area_handler},
    {.name = "is_generic_model", .handler = nos_is_generic_model_handler},
    {.name = "get_platform_display_name", .handler = nos_get_platform_display_name_handler},
    {.name = "system_call_cloud_analysis_register",
     .handler = nos_system_call_cloud_analysis_register_handler},
    {.name = "system_call_cloud_analysis_send", .handler = nos_tool_command_handler},
    {.name = "system_call_cloud_analysis_flush", .handler = nos_tool_command_handler},
    {.name = "system_call_cloud_analysis_unregister", .handler = nos_tool_command_handler},
    {.name = "system_trn_smb_setfolder_priv", .handler = nos_tool_command_handler},
    {.name = "system_call_share_folder_renew", .handler = nos_tool_command_handler},
    {.name = "system_call_kseek_list_add", .handler = nos_tool_command_handler},
    {.name = "vistal_auth_add_session", .handler = nos_vistal_auth_add_session_handler},
    {.name = "vistal_auth_get_session", .handler = nos_vistal_auth_get_session_handler},
    {.name = "get_sms_config", .handler = nos_get_sms_config_handler},
    {.name = "get_all_users", .handler = nos_get_all_users_handler},
    {.name = "get_all_groups", .handler = nos_get_all_groups_handler},
    {.name = "get_group_members", .handler = nos_get_group_members_handler},
    {.name = "system_call_nc_notify", .handler = nos_system_call_nc_notify_handler},
    {.name = "system_get_tiermount_cloud_usage", .handler = nos_system_get_tiermount_cloud_usage_handler},
    {.name = "is_trn_model", .handler = nos_system_is_TRN_model_handler},
    {.name = "update_ip_ban_list", .handler = nos_update_ip_ban_list_handler},
    {.name = "notify_return", .handler = nos_return_handler},
    {.name = "read_hwsn", .handler = nos_cloud_command_handler},
    {.name = "system_call_cloud_get_device_list", .handler = nos_cloud_command_handler},
    {.name = "system_call_cloud_get_kid_service", .handler = nos_cloud_command_handler},
    {.name = "system_call_cloud_get_user_token", .handler = nos_cloud_command_handler},
    {.name = "system_call_cloud_get_host_endpoint", .handler = nos_cloud_command_handler},
    {.name = "system_call_cloud_get_host_site", .handler = nos_cloud_command_handler},
    {.name = "system_call_cloud_get_access_token", .handler = nos_cloud_command_handler},
    {.name = "system_call_cloud_kcm_tunnel_agent", .handler = nos_cloud_command_handler},
    {.name = "reverse_proxy", .handler = nos_reverse_proxy_handler},
    {.name = "web_booth", .handler = nos_web_booth_handler},
    {.name = "install_app", .handler = nos_install_app_handler},
    {.name = "cmv_cli", .handler = nos_cmv_cli_handler},
    {.name = "system_call_cloud_get_device_info", .handler = nos_cloud_command_handler},
    {.name = "vistal_agent_cli", .handler = vistal_agent_cli_handler},
    {.name = "system_call_cloud_get_device_status", .handler = nos_cloud_command_handler},
};
static_assert(std::size(kMainCommands) == 48 && std::size(kMailCommands) == 2);

}  // namespace

std::span<const CommandRow> main_commands() {
  return kMainCommands;
}

std::span<const CommandRow> mail_commands() {
  return kMailCommands;
}
