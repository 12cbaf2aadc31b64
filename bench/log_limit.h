// The least that a library's logging does with a line that is filtered out.
#pragma once

// Prints a line unless its level is above 3.
extern "C" __attribute__((format(printf, 2, 3))) void log_limit(int level, const char *format, ...);
