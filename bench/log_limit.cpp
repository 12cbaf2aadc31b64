#include "log_limit.h"

#include <cstdarg>
#include <cstdio>

namespace
{
volatile int highest = 3;
}

void log_limit(int level, const char *format, ...)
{
    if (level > highest)
        return;
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
}
