#include "parson.h"
