// snprintf.cpp - bounded formatting that always terminates.
#include "koutil/snprintf.h"

#include <cstdio>

int VoVsnprintf(char *str, size_t size, const char *format, va_list args)
{
    if (format == nullptr || (str == nullptr && size != 0)) {
        return -1;
    }
    const int needed = vsnprintf(str, size, format, args);
    if (str != nullptr && size != 0 && (needed < 0 || static_cast<size_t>(needed) >= size)) {
        str[size - 1] = '\0';
    }
    return needed;
}

int VoSnprintf(char *str, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int needed = VoVsnprintf(str, size, format, args);
    va_end(args);
    return needed;
}
