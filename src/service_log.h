// How the modules of a service thread log: as one place, whichever of them it is.
#pragma once

#include "logger.h"

#define LOG_SERVICE(level, ...) write_log(level, "vesperd", __LINE__, "service_proc", __VA_ARGS__)
