// The names under which the daemon publishes its two services.
#pragma once

inline constexpr char kMainServiceName[] = "VistalServer-vistalprod";
inline constexpr char kMailServiceName[] = "VistalServer_send_mail-vistalprod";
