// Every command handler, by the source file that holds it. All have the same shape: the request, and the
// client's descriptor, whose number means nothing by the time the handler runs: standard output stands for
// it. The request belongs to the dispatcher.
#pragma once

#include "service/ks.h"

// test_commands.cpp
void test_handler(ks_io* io, int extra_fd);
void nos_test_sendmail_srv_handler(ks_io* io, int extra_fd);

// exec_cli.cpp
void exec_cli_handler(ks_io* io, int extra_fd);

// tool_commands.cpp: every command that does nothing but run one platform tool
void nos_tool_command_handler(ks_io* io, int extra_fd);

// cloud_commands.cpp: every command that returns what a cloud tool prints
void nos_cloud_command_handler(ks_io* io, int extra_fd);

// event_log.cpp
void nos_system_call_evrec_tool_handler(ks_io* io, int extra_fd);
void nos_system_connrec_tool_handler(ks_io* io, int extra_fd);

// package_cli.cpp
void nos_cmv_cli_handler(ks_io* io, int extra_fd);
void vistal_agent_cli_handler(ks_io* io, int extra_fd);

// ip_ban_list.cpp, reverse_proxy.cpp, web_booth.cpp, install_app.cpp
void nos_update_ip_ban_list_handler(ks_io* io, int extra_fd);
void nos_reverse_proxy_handler(ks_io* io, int extra_fd);
void nos_web_booth_handler(ks_io* io, int extra_fd);
void nos_install_app_handler(ks_io* io, int extra_fd);

// sendmail.cpp
void nos_sendmail_handler(ks_io* io, int extra_fd);

// analytics.cpp
void nos_system_call_cloud_analysis_register_handler(ks_io* io, int extra_fd);

// notify.cpp
void nos_system_call_nc_notify_handler(ks_io* io, int extra_fd);
void nos_return_handler(ks_io* io, int extra_fd);

// cloud_usage.cpp
void nos_system_get_tiermount_cloud_usage_handler(ks_io* io, int extra_fd);

// identity.cpp
void nos_get_vpd_productnamed_handler(ks_io* io, int extra_fd);
void nos_get_vpd_eepkey_handler(ks_io* io, int extra_fd);
void nos_get_vpd_channel_handler(ks_io* io, int extra_fd);
void nos_get_vpd_ext_area_handler(ks_io* io, int extra_fd);
void nos_get_platform_display_name_handler(ks_io* io, int extra_fd);
void nos_is_generic_model_handler(ks_io* io, int extra_fd);
void nos_system_is_TRN_model_handler(ks_io* io, int extra_fd);
void nos_get_dispdeck_status_handler(ks_io* io, int extra_fd);

// accounts.cpp
void nos_get_all_users_handler(ks_io* io, int extra_fd);
void nos_get_all_groups_handler(ks_io* io, int extra_fd);
void nos_get_group_members_handler(ks_io* io, int extra_fd);
void nos_get_sms_config_handler(ks_io* io, int extra_fd);

// sessions.cpp
void nos_vistal_auth_add_session_handler(ks_io* io, int extra_fd);
void nos_vistal_auth_get_session_handler(ks_io* io, int extra_fd);
void nos_get_sess_id_handler(ks_io* io, int extra_fd);
