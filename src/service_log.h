// How the modules of a service thread log: as one place, whichever of them it is.
#pragma once

#include "logger.h"

#define LOG_SERVICE(level, ...) LOG_FROM(level, "vesperd", "service_proc", __VA_ARGS__)
