// UTF-8 out of bytes of unknown origin.
#pragma once

#include <string>
#include <string_view>

// The length in bytes of the valid character that `text`, which is not empty, begins with (RFC 3629); 0
// when it begins with none.
size_t utf8_length(std::string_view text) noexcept;

// The text as it is when it is valid UTF-8, else read as ISO 8859-1.
std::string as_utf8(std::string_view text);
