#include "common/catalog_root.h"

#ifndef ZRIOSTAT_MESSAGES_ROOT
#define ZRIOSTAT_MESSAGES_ROOT "/opt/ZRPK/messages"
#endif

const char *vol_messages_root = ZRIOSTAT_MESSAGES_ROOT;
