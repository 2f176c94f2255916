// Small helpers with no state and no dependency on any other platform service.
#ifndef QXCURL_PLATFORM_QX_UTIL_H
#define QXCURL_PLATFORM_QX_UTIL_H
#include <cstddef>
#include <string>

// Dotted-number version comparison ("5.0" < "6.0" < "10.0"; "6" == "6.0"):
// negative, zero or positive. Null or non-numeric parts compare as 0.
int compare_api_version(const char* a, const char* b);

// Replaces every JSON Web Token found in text (three base64url segments
// separated by dots, the first starting "eyJ") by its first two characters,
// "...", and its last character. Everything else is kept.
std::string mask_jwt(const std::string& text);

// Base name of the running executable ("qxcurl"), from /proc/self/exe, or
// "unknown".
std::string get_exe_basename();

// The process's message locale ("fr_FR.UTF-8" gives "fr_FR.UTF-8"): LC_ALL,
// LC_MESSAGES, LANG in that order, else "C". Copies into each non-null buffer
// of the given size (always NUL-terminated). 0 on success.
int ovgetlocaleEx(char* messages, char* ctype, char* time, char* collate, char* numeric,
                  size_t size);

// Removes leading and trailing blank, tab, vertical tab, form feed, carriage
// return and line feed.
std::string trim(const std::string& s);
#endif  // QXCURL_PLATFORM_QX_UTIL_H
