#pragma once

#include <syslog.h>

// Sends one diagnostic to syslog at priority LOG_ERR, prefixed with the tool's name and the line that reports it.
// `format` is a string literal, so the compiler checks the arguments against it and data can never act as a format.
#define KAVO_LOG(format, ...) KAVO_LOG_AT(__LINE__, format __VA_OPT__(, ) __VA_ARGS__)

// The same for a shared helper that reports on behalf of its caller's line.
#define KAVO_LOG_AT(line, format, ...) \
  syslog(LOG_ERR, "%s:%d " format, "kavophoto_backup", static_cast<int>(line) __VA_OPT__(, ) __VA_ARGS__)
