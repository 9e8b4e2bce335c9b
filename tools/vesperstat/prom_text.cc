#include "prom_text.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::string_view BLANKS = " \t";
constexpr size_t USUAL_LABELS = 5;

bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// One line of the text, read from its front.
class cursor_t {
  public:
    explicit cursor_t(std::string_view line) : left_(line) {}

    bool is_at_end() const { return left_.empty(); }

    void skip_blanks() { left_.remove_prefix(std::min(left_.find_first_not_of(BLANKS), size())); }

    bool take(char wanted) {
        if (!left_.starts_with(wanted)) {
            return false;
        }
        left_.remove_prefix(1);
        return true;
    }

    // A name of a metric or, without colons, of a label; empty when none begins here.
    std::string_view take_name(bool with_colons) {
        const auto belongs = [&](char c) {
            return is_letter(c) || is_digit(c) || (with_colons && c == ':');
        };
        if (is_at_end() || is_digit(left_.front())) {
            return {};
        }
        const auto end = std::find_if_not(left_.begin(), left_.end(), belongs);
        return take_front(static_cast<size_t>(end - left_.begin()));
    }

    // What stands before the next blank or the end.
    std::string_view take_word() {
        return take_front(std::min(left_.find_first_of(BLANKS), size()));
    }

    // A label's value with its quotes.
    bool take_quoted(std::string *value) {
        if (!take('"')) {
            return false;
        }
        while (!is_at_end()) {
            const char c = take_front(1).front();
            if (c == '"') {
                return true;
            }
            if (c != '\\') {
                *value += c;
            } else if (!take_escaped(value)) {
                return false;
            }
        }
        return false;
    }

  private:
    size_t size() const { return left_.size(); }

    std::string_view take_front(size_t length) {
        const std::string_view front = left_.substr(0, length);
        left_.remove_prefix(length);
        return front;
    }

    bool take_escaped(std::string *value) {
        for (const auto &[letter, meaning] : {std::pair('n', '\n'), {'"', '"'}, {'\\', '\\'}}) {
            if (take(letter)) {
                *value += meaning;
                return true;
            }
        }
        return false;
    }

    std::string_view left_;
};

bool take_labels(cursor_t *cursor, sample_t *sample) {
    if (!cursor->take('{')) {
        return true;
    }
    cursor->skip_blanks();
    sample->labels.reserve(USUAL_LABELS);
    while (!cursor->take('}')) {
        auto &[name, value] = sample->labels.emplace_back(cursor->take_name(false), "");
        cursor->skip_blanks();
        if (name.empty() || !cursor->take('=')) {
            return false;
        }
        cursor->skip_blanks();
        if (!cursor->take_quoted(&value)) {
            return false;
        }
        cursor->skip_blanks();
        if (!cursor->take(',')) {
            return cursor->take('}');
        }
        cursor->skip_blanks();
    }
    return true;
}

template <typename number_t>
bool parse_number(std::string_view text, number_t *number) {
    const bool has_sign = text.starts_with('+');  // which from_chars does not take
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + (has_sign ? 1 : 0), end, *number);
    return !text.empty() && error == std::errc() && stop == end;
}

bool parse_sample(cursor_t cursor, sample_t *sample) {
    sample->metric = cursor.take_name(true);
    cursor.skip_blanks();
    if (sample->metric.empty() || !take_labels(&cursor, sample)) {
        return false;
    }
    cursor.skip_blanks();
    if (!parse_number(cursor.take_word(), &sample->value)) {
        return false;
    }
    cursor.skip_blanks();
    if (long long milliseconds;
        !cursor.is_at_end() && !parse_number(cursor.take_word(), &milliseconds)) {
        return false;
    }
    cursor.skip_blanks();
    return cursor.is_at_end();
}

}  // namespace

std::string_view sample_t::label(std::string_view wanted) const noexcept {
    for (const auto &[name, text] : labels) {
        if (name == wanted) {
            return text;
        }
    }
    return {};
}

bool parse_samples(std::string_view text, std::vector<sample_t> *samples, std::string *error) {
    int number = 1;
    for (; !text.empty(); number++) {
        const size_t end = text.find('\n');
        if (end == std::string_view::npos) {
            *error = "line " + std::to_string(number) + " is cut";
            return false;
        }
        cursor_t cursor(text.substr(0, end));
        text.remove_prefix(end + 1);
        cursor.skip_blanks();
        if (cursor.is_at_end() || cursor.take('#')) {
            continue;
        }
        sample_t sample;
        if (!parse_sample(cursor, &sample)) {
            *error = "line " + std::to_string(number) + " is no sample";
            return false;
        }
        samples->push_back(std::move(sample));
    }
    return true;
}
