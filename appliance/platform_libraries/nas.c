// Stands in for the platform's account library: three users, two groups, their members.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "script.h"

enum { kEntrySize = 33 };

static const char* const kUsers[] = {"admin", "alice", "bob"};
static const char* const kGroups[] = {"administrators", "everyone"};

// The block is exactly as long as its entries, so that a sanitizer can detect a reader that runs past the end.
static int list_names(const char* function, const char* const* names, int size, char** list, int first, int second,
                      const void* nothing, int* count) {
  char texts[2][16];
  snprintf(texts[0], sizeof texts[0], "%d", first);
  snprintf(texts[1], sizeof texts[1], "%d", second);
  record_call(function, texts[0], texts[1], nothing == NULL ? "null" : "something", NULL);
  if (*list != NULL || *count != 0) return -1;
  *count = scripted_or("count", size);
  if (!scripted("null", NULL)) {
    *list = calloc((size_t)size, kEntrySize);
    if (*list == NULL) return -1;
    for (int i = 0; i < size; ++i) strcpy(*list + i * kEntrySize, names[i]);
    if (scripted("full", NULL)) memset(*list, 'x', (size_t)size * kEntrySize);
  }
  return scripted_or("return", 0);
}

int Get_Local_User_List_V2(char** list, int first, int second, void* nothing, int* count);
int Get_Local_User_List_V2(char** list, int first, int second, void* nothing, int* count) {
  return list_names(__func__, kUsers, 3, list, first, second, nothing, count);
}

int Get_Local_Group_List_V2(char** list, int first, int second, void* nothing, int* count);
int Get_Local_Group_List_V2(char** list, int first, int second, void* nothing, int* count) {
  return list_names(__func__, kGroups, 2, list, first, second, nothing, count);
}

// "everyone" has all users, "administrators" only the first; there are no other groups. The list and its entries are in
// the library's own memory: a caller that frees them crashes.
int Get_NAS_User_List_Of_Group_Ex(const char* group, const char*** list);
int Get_NAS_User_List_Of_Group_Ex(const char* group, const char*** list) {
  record_call(__func__, group, NULL);
  if (*list != NULL) return -1;
  int size = 0;
  if (strcmp(group, kGroups[0]) == 0) size = 1;
  if (strcmp(group, kGroups[1]) == 0) size = 3;
  if (size == 0) return -1;
  int absent = size;
  if (!scripted("null", &absent) || absent >= 0) {
    static const char* members[64];
    for (int i = 0; i < size; ++i) members[i] = i == absent ? NULL : kUsers[i];
    *list = members;
  }
  return scripted_or("return", scripted_or("count", size));
}
