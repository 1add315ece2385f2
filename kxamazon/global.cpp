#include "kxamazon/global.h"

global_t global;
