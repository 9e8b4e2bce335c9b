// What is found in a configuration, each with its place.
#pragma once

#include <string>
#include <string_view>
#include <vector>

enum class severity_t { NOTE, WARNING, ERROR };

const char *severity_name(severity_t severity) noexcept;

struct finding_t {
    int line;  // from 1
    severity_t severity;
    const char *kind;  // what it is about, for programs: "unknown-key"
    std::string text;

    bool operator==(const finding_t &) const = default;
};

// One text out of texts, characters and numbers.
inline std::string text_of_part(std::string_view part) {
    return std::string(part);
}
inline std::string text_of_part(char part) {
    return std::string(1, part);
}
inline std::string text_of_part(long part) {
    return std::to_string(part);
}
inline std::string text_of_part(int part) {
    return std::to_string(part);
}
inline std::string text_of_part(size_t part) {
    return std::to_string(part);
}
template <typename... parts_t>
std::string text_of(const parts_t &...parts) {
    std::string text;
    (text.append(text_of_part(parts)), ...);
    return text;
}

class findings_t {
  public:
    // Take the finding's text in parts, as text_of() does.
    template <typename... parts_t>
    void error(int line, const char *kind, const parts_t &...parts) {
        found_.push_back({line, severity_t::ERROR, kind, text_of(parts...)});
    }
    template <typename... parts_t>
    void warn(int line, const char *kind, const parts_t &...parts) {
        found_.push_back({line, severity_t::WARNING, kind, text_of(parts...)});
    }
    template <typename... parts_t>
    void note(int line, const char *kind, const parts_t &...parts) {
        found_.push_back({line, severity_t::NOTE, kind, text_of(parts...)});
    }

    // In the order of lines, each once.
    std::vector<finding_t> sorted() const;

  private:
    std::vector<finding_t> found_;
};

// The known name that is nearest to a name, if it is near enough to be what was meant; else empty.
std::string nearest_name(std::string_view name, const std::vector<std::string> &known);

std::string lower_case(std::string_view text);
std::string_view without_blanks(std::string_view text);
