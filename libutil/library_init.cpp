// library_init.cpp - the start-up call.
#include "koutil/library_init.h"

#include "koutil/alloc.h"
#include "koutil/thrpri.h"

void LibraryInit(void)
{
    thrpri_init();
    AllocMemory = MyMemalign;
    FreeMemory = MyFree;
}
