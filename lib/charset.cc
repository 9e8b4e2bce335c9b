#include "charset.h"

#include <cctype>
#include <cerrno>

namespace {

const iconv_t NONE = reinterpret_cast<iconv_t>(-1);
constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";  // U+FFFD
constexpr size_t PIECE_SIZE = 256;

// A character set whose conversion in the C library writes past its buffer, whatever its name is written
// like: bytes from a line would end the process.
bool is_broken(std::string_view name) {
    constexpr std::string_view BROKEN = "ISO2022CNEXT";
    std::string letters;
    for (const char c : name.substr(0, name.find('/'))) {
        if (isalnum(static_cast<unsigned char>(c)) != 0) {
            letters += static_cast<char>(toupper(static_cast<unsigned char>(c)));
        }
    }
    return letters == BROKEN;
}

}  // namespace

bool charset_t::open(const char *name) noexcept {
    if (name_ == name) {
        return true;
    }
    close();
    name_ = name;
    if (name[0] == '\0') {
        return true;
    }
    conversion_ = is_broken(name) ? NONE : iconv_open("UTF-8", name);
    if (conversion_ == NONE) {
        name_.clear();  // the next time may be better
    }
    return conversion_ != NONE;
}

// Some sets hold a character back that the next one may combine with. The next text begins anew.
void charset_t::finish(std::string *converted) const noexcept {
    char piece[PIECE_SIZE];
    char *to = piece;
    size_t room = sizeof piece;
    iconv(conversion_, nullptr, nullptr, &to, &room);
    converted->append(piece, sizeof piece - room);
}

std::string charset_t::to_utf8(std::string_view text) const noexcept {
    if (conversion_ == NONE) {
        return std::string(text);
    }
    std::string converted;
    char *from = const_cast<char *>(text.data());
    size_t left = text.size();
    while (left > 0) {
        char piece[PIECE_SIZE];
        char *to = piece;
        size_t room = sizeof piece;
        const bool failed = iconv(conversion_, &from, &left, &to, &room) == static_cast<size_t>(-1);
        const int error = errno;
        converted.append(piece, sizeof piece - room);
        if (failed && error != E2BIG) {
            finish(&converted);
            converted += REPLACEMENT;
            from++;
            left--;
        }
    }
    finish(&converted);
    return converted;
}

void charset_t::close() noexcept {
    if (conversion_ != NONE) {
        iconv_close(conversion_);
    }
    conversion_ = NONE;
}
