// UTF-8 out of bytes of unknown origin.
#pragma once

#include <string>
#include <string_view>

// The text as it is when it is valid UTF-8 (RFC 3629), else read as ISO 8859-1.
std::string as_utf8(std::string_view text);
