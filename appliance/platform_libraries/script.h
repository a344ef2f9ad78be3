// Shared by the stand-ins of the platform's closed libraries. Each records how its functions are called, and a test can
// change what they do. The files are the same as those of stand-in programs; PATH is the library's path:
//
//   /tmp/stand_in/PATH.calls     the record: per call a line "call", "argv0 FUNCTION", "arg TEXT" per argument
//                                in the order of the call (without out-arguments), "end"
//   /tmp/stand_in/PATH.outcome   the script, one step per line, read at each call; without it every call succeeds
//
//   return N    return N; everything else happens as usual
//   count N     report N entries, regardless of the real number
//   null        return no list;   null N: put a null in place of entry N of a list of pointers
//   program     start a program that writes its descriptor limit and signal mask to /tmp/stand_in/PATH.program
//   delay MS    wait
//   full        fill the texts of names and records to their last byte, without a NUL
//
// A test simulates a missing function or library by putting another file at the path.
#pragma once

#include <stdbool.h>

#pragma GCC visibility push(hidden)

// PLATFORM_LIBRARY is the path of the library that is being built.

// Appends one call to the record; the texts after `function` end with a null.
void record_call(const char* function, ...) __attribute__((sentinel));

// Whether the script has this step. If so, and `number` is not null, stores the number after the step's name, or -1 if
// there is none.
bool scripted(const char* step, int* number);

// The number of the script's `step`; `otherwise` if the script does not have the step.
int scripted_or(const char* step, int otherwise);

#pragma GCC visibility pop
