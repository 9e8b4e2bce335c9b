// Everything that espasend delivers, over a first connection and any number of later ones.
#pragma once

#include "options.h"

// Delivers it and prints every exchange. What cannot be delivered is told and ends the process.
void deliver_all(const options_t &options);
