// fprintf_indent.cpp - print behind an indent.
#include "koutil/fprintf_indent.h"

#include <cstdarg>

int fprintf_indent(FILE *fp, int indent, const char *fmt, ...)
{
    if (fmt == nullptr) {
        return -1;
    }
    va_list args;
    va_start(args, fmt);
    flockfile(fp);
    if (indent != 0) {
        fprintf(fp, "%*s", indent, " ");
    }
    const int printed = vfprintf(fp, fmt, args);
    funlockfile(fp);
    va_end(args);
    return printed;
}
