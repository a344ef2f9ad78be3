#pragma once

// Handler of SIGSEGV and SIGABRT: writes a backtrace of the current thread to the log and ends the process with
// SIGKILL, after a few seconds even if the backtrace cannot be written.
void crash_handler(int signum);

// Logs the backtrace, a separator line and the program's invocation name.
void vistalprod_debug_backtrace_dump();
