// The service from start to stop, and the configuration that it reads.
//
// Runs once in a process. It fills global and owns the list of sync pairs, which global borrows until the
// stop; the event log that the program opened is closed here.
#pragma once

#include <libxml/tree.h>

#include "kxamazon/acd_sync_pair.h"

// Runs the service until SIGUSR1. 0 after a normal stop, -1 when the account is not linked; ends the process
// with status 1 on fatal start-up errors.
int service();

// The sync pairs that the configuration names, from the first child of its root element; a new list, never
// null, empty when no share qualifies.
acd_sync_pair_list_t* read_sync_pair_config(xmlNode* first_child);
