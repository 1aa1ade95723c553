// list.cpp - the linkable form of the lists, which the header defines whole.
#define KO_LIST_DEFINE
#include "common/list.h"

static_assert(sizeof(ListHdr_t) == 16 && sizeof(Link_t) == 32 && sizeof(FpHdr_t) == 272);
