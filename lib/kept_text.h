// Texts that live as long as the process, for settings that one thread changes while others use them.
#pragma once

#include <string_view>

// A copy of the text that is never released; equal texts are one. For one thread at a time.
const char *kept_text(std::string_view text) noexcept;
