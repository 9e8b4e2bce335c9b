// What is wrong with a line that has never worked.
#pragma once

#include <optional>

#include "problems.h"
#include "status_file.h"

// The first of these that holds for a line without a message since the start of its daemon:
//   mute     its connections have been silent for ten minutes, and brought nothing before or after
//   closed   20 connections were lost, and none has brought anything
//   noise    100 bytes that belong to nothing have come, and next to nothing else
//   address  20 requests were heard and none was for this station
//   check    three packets have come, and none of them had the right block check character
// Each of them ends with the first message, and with what it says has never come. A warning; of a
// line that is configured for ASCII, which may be quiet for days, a notice.
std::optional<problem_t> first_look(const line_status_t &line);
