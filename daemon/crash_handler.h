#pragma once

// Handler of SIGSEGV and SIGABRT: writes a backtrace of the current thread to the log and ends the process
// with SIGKILL, within a few seconds even if the crash has left the process unable to write it.
void crash_handler(int signum);

// Logs the backtrace, a closing rule and the program's invocation name.
void vistalprod_debug_backtrace_dump();
