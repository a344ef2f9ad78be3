// The names of the daemon's two services and of the service that it calls.
#pragma once

inline constexpr char kMainServiceName[] = "VistalServer-vistalprod";
inline constexpr char kMailServiceName[] = "VistalServer_send_mail-vistalprod";
inline constexpr char kNotifyServiceName[] = "VistalServer_notify-vistalprod";
