// Conversion from a character set to UTF-8 with the C library's iconv.
#pragma once

#include <iconv.h>

#include <string>
#include <string_view>

class charset_t {
  public:
    charset_t() noexcept = default;
    charset_t(const charset_t &) = delete;
    charset_t &operator=(const charset_t &) = delete;
    ~charset_t() { close(); }

    // Converts from the set of this name from now on ("ISO-8859-1", "DIN_66003", ...); an empty name
    // stands for no conversion. Returns false when iconv does not know it: nothing is converted then.
    bool open(const char *name) noexcept;

    // The text in UTF-8, however much longer that is. A byte that the set does not have becomes
    // U+FFFD.
    std::string to_utf8(std::string_view text) const noexcept;

  private:
    void finish(std::string *converted) const noexcept;
    void close() noexcept;

    std::string name_;
    iconv_t conversion_ = reinterpret_cast<iconv_t>(-1);
};
