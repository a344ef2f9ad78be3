// Stands in for the platform's session library. The sessions are lines "type sid user" in a file, because the library
// is unloaded between two calls. A user may contain blanks.
#include <stdio.h>
#include <string.h>

#include "script.h"

#define SESSIONS "/tmp/stand_in" PLATFORM_LIBRARY ".sessions"

enum { kUserOffset = 82, kUserSize = 65, kRecordSize = 4096 };

int auth_add_session(const char* sid, const char* user, int type, const char* empty);
int auth_add_session(const char* sid, const char* user, int type, const char* empty) {
  char type_text[16];
  snprintf(type_text, sizeof type_text, "%d", type);
  record_call(__func__, sid, user, type_text, empty, NULL);
  FILE* const sessions = fopen(SESSIONS, "ae");
  if (sessions == NULL) return -1;
  fprintf(sessions, "%d %s %s\n", type, sid, user);
  fclose(sessions);
  return scripted_or("return", 0);
}

int auth_get_session(const char* sid, int type, char* record);
int auth_get_session(const char* sid, int type, char* record) {
  char type_text[16];
  snprintf(type_text, sizeof type_text, "%d", type);
  record_call(__func__, sid, type_text, NULL);
  char start[256];
  snprintf(start, sizeof start, "%d %s ", type, sid);
  const size_t length = strlen(start);
  FILE* const sessions = fopen(SESSIONS, "re");
  if (sessions == NULL) return -1;
  int result = -1;
  char line[512];
  while (fgets(line, sizeof line, sessions) != NULL) {
    if (strncmp(line, start, length) != 0) continue;
    memset(record, '#', kUserOffset);  // the rest of the record is not a text
    snprintf(record + kUserOffset, kUserSize, "%.*s", (int)strcspn(line + length, "\n"), line + length);
    result = 0;
  }
  fclose(sessions);
  if (scripted("full", NULL)) memset(record, 'x', kRecordSize);
  return scripted_or("return", result);
}
