// console.cpp - messages for whoever sits at the console.
#include "koutil/console.h"

#include <cstdio>

void ConsoleMessage(const char *buff)
{
    if (buff != nullptr) {
        fputs(buff, stderr);
    }
}

void ConsoleWait(void) {}
