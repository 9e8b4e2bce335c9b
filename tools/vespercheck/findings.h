// What is found in a configuration, each with its place.
#pragma once

#include <map>
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
    // More of a kind are only counted.
    static constexpr size_t MAX_OF_KIND = 1000;

    // Take the finding's text in parts, as text_of() does.
    template <typename... parts_t>
    void error(int line, const char *kind, const parts_t &...parts) {
        add(line, severity_t::ERROR, kind, parts...);
    }
    template <typename... parts_t>
    void warn(int line, const char *kind, const parts_t &...parts) {
        add(line, severity_t::WARNING, kind, parts...);
    }
    template <typename... parts_t>
    void note(int line, const char *kind, const parts_t &...parts) {
        add(line, severity_t::NOTE, kind, parts...);
    }

    // Whether the text of a further finding of this kind would be kept.
    bool has_room(const char *kind) const;

    // nearest_name() of what `known()` returns; empty when it has looked at a hundred thousand
    // names already.
    template <typename known_t>
    std::string hint(std::string_view name, known_t known) {
        return comparisons_left_ > 0 ? compare(name, known()) : "";
    }

    // In the order of lines, each once; and how many of a kind are not among them, at the line of
    // the first.
    std::vector<finding_t> sorted() const;

  private:
    struct tally_t {
        size_t kept = 0;
        size_t left_out = 0;
        int line = 0;
        severity_t worst = severity_t::NOTE;
    };

    template <typename... parts_t>
    void add(int line, severity_t severity, const char *kind, const parts_t &...parts) {
        if (take_room(line, severity, kind)) {
            found_.push_back({line, severity, kind, text_of(parts...)});
        }
    }
    bool take_room(int line, severity_t severity, const char *kind);
    std::string compare(std::string_view name, const std::vector<std::string> &known);

    std::vector<finding_t> found_;
    std::map<std::string, tally_t, std::less<>> kinds_;
    size_t comparisons_left_ = 100'000;
};

// The known name that is nearest to a name, if it is near enough to be what was meant; else empty.
std::string nearest_name(std::string_view name, const std::vector<std::string> &known);

std::string lower_case(std::string_view text);
std::string_view without_blanks(std::string_view text);
