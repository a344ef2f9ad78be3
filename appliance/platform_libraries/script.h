// What the stand-ins of the platform's closed libraries share: each records how its functions are called and
// lets a test bend what they do. The files are those of the stand-in programs, by the library's path:
//
//   /tmp/stand_in/PATH.calls     the record: per call a line "call", "argv0 FUNCTION", "arg TEXT" per argument
//                                in the order of the call (out-arguments left out), "end"
//   /tmp/stand_in/PATH.outcome   the script, one step a line, read at each call; without it all is in order
//
//   return N    return N; all else happens as usual
//   count N     tell N entries, whatever there are
//   null        give no list;   null N: put a null in place of entry N of a list of pointers
//   program     start a program that writes its descriptor limit and signal mask to /tmp/stand_in/PATH.program
//   delay MS    wait
//   full        fill the texts of names and records to their last byte, without a NUL
//
// A function that is missing, and a library that is, a test makes by putting another file at the path.
#pragma once

#include <stdbool.h>

#pragma GCC visibility push(hidden)

// PLATFORM_LIBRARY is the path of the library that is being built.

// Appends one call; the texts after `function` end with a null.
void record_call(const char* function, ...) __attribute__((sentinel));

// Whether the script has this step. If so, *number (may be null) becomes what follows its name, -1 for
// nothing.
bool scripted(const char* step, int* number);

// What `step` says, or `otherwise`.
int scripted_or(const char* step, int otherwise);

#pragma GCC visibility pop
