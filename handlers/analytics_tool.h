// Where the platform keeps its analytics tool; its first argument is a command word.
#pragma once

inline constexpr char kAnalyticsTool[] = "/usr/local/bin/kanalytic_tool";
