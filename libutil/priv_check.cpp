// priv_check.cpp - the administrator test.
#include "koutil/priv_check.h"

#include <unistd.h>

int PrivCheck(void)
{
    return geteuid() == 0 ? 1 : 0;
}
