#include "ini.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "files.h"

namespace {

constexpr int PIECE_SIZE = INI_PIECE_LENGTH + 1;

bool is_blank(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

void lower_case(char *text) {
    for (; *text != '\0'; text++) {
        *text = static_cast<char>(tolower(static_cast<unsigned char>(*text)));
    }
}

void drop_trailing_blanks(char *text) {
    size_t length = strlen(text);
    while (length > 0 && is_blank(text[length - 1])) {
        text[--length] = '\0';
    }
}

// Reads the pieces of a file one after the other.
class line_reader_t {
  public:
    explicit line_reader_t(FILE *file) : file_(file) {}

    // Returns false at the end of the file. `line()` is what it read.
    bool read_next() {
        if (is_at_line_start_) {
            number_++;
        }
        // The last byte tells whether the buffer was filled, also where the file holds zero bytes.
        constexpr int LAST = PIECE_SIZE - 1;
        piece_[LAST] = '\n';
        if (fgets(piece_, PIECE_SIZE, file_) == nullptr) {
            return false;
        }
        is_at_line_start_ = piece_[LAST] != '\0' || piece_[LAST - 1] == '\n';
        scan();
        return true;
    }
    ini_line_t line() const {
        const bool has_key = form_ == ini_form_t::ENTRY || form_ == ini_form_t::NO_VALUE;
        return {number_,
                !is_at_line_start_ && has_more(),
                form_,
                text_,
                section_,
                has_key ? key_ : nullptr,
                form_ == ini_form_t::ENTRY ? value_ : nullptr,
                quote_,
                rest_};
    }

  private:
    // Whether the line that fills the buffer holds more than its end.
    bool has_more() const {
        const int next = getc(file_);
        ungetc(next, file_);
        return next != EOF && next != '\n';
    }

    void scan() {
        const char *start = piece_;
        while (is_blank(*start)) {
            start++;
        }
        text_ = start;
        rest_ = "";
        quote_ = 0;
        if (*start == '\0' || *start == '#' || *start == ';') {
            form_ = ini_form_t::REMARK;
        } else if (int end = 0; sscanf(start, "[%1023[^]]%n", section_, &end) == 1) {
            form_ = ini_form_t::SECTION;
            lower_case(section_);
            rest_ = text_.substr(static_cast<size_t>(end));
        } else {
            scan_key_line(start);
        }
    }

    void scan_key_line(const char *start) {
        if (int end = scan_forms(start); end > 0) {
            form_ = ini_form_t::ENTRY;
            rest_ = text_.substr(static_cast<size_t>(end));
            tidy();
            return;
        }
        const size_t equals = text_.find('=');
        const bool has_key = equals != 0 && equals != std::string_view::npos;
        form_ = has_key ? ini_form_t::NO_VALUE : ini_form_t::NONE;
        if (has_key) {
            tidy_key();
            rest_ = text_.substr(equals + 1);
        }
    }

    // The three forms of a key line, in the order in which they are tried. Returns where the value
    // ends, 0 when none fits.
    int scan_forms(const char *start) {
        int end = 0;
        if (sscanf(start, "%1023[^=] = \"%1023[^\"]%n", key_, value_, &end) == 2) {
            quote_ = '"';
        } else if (sscanf(start, "%1023[^=] = '%1023[^']%n", key_, value_, &end) == 2) {
            quote_ = '\'';
        } else if (sscanf(start, "%1023[^=] = %1023[^;#]%n", key_, value_, &end) != 2) {
            return 0;
        }
        return end;
    }

    void tidy_key() {
        drop_trailing_blanks(key_);
        lower_case(key_);
    }
    void tidy() {
        tidy_key();
        drop_trailing_blanks(value_);
        if (strcmp(value_, "\"\"") == 0 || strcmp(value_, "''") == 0) {
            value_[0] = '\0';
        }
    }

    FILE *file_;
    int number_ = 0;
    bool is_at_line_start_ = true;
    ini_form_t form_ = ini_form_t::REMARK;
    std::string_view text_;
    std::string_view rest_;
    char quote_ = 0;
    char piece_[PIECE_SIZE] = "";
    char section_[PIECE_SIZE] = "";
    char key_[PIECE_SIZE] = "";
    char value_[PIECE_SIZE] = "";
};

using pair_t = std::pair<const char *, const char *>;

// The dictionary that dictionary_set() makes of these pairs one by one, which looks through all
// that it has for each of them. No two names are the same.
unique_dictionary_t make_dictionary(const std::vector<pair_t> &pairs) {
    unique_dictionary_t dict(dictionary_new(pairs.size()));
    if (!dict) {
        return dict;
    }
    size_t slot = 0;
    for (const auto &[name, value] : pairs) {
        dict->key[slot] = strdup(name);
        dict->val[slot] = value != nullptr ? strdup(value) : nullptr;
        dict->hash[slot] = dictionary_hash(name);
        slot++;
    }
    dict->n = static_cast<decltype(dict->n)>(slot);
    return dict;
}

std::string_view before_colon(std::string_view name) {
    return name.substr(0, name.find(':'));
}

}  // namespace

void ini_read(FILE *file, const ini_listener_t &listener) noexcept {
    line_reader_t reader(file);
    while (reader.read_next()) {
        listener(reader.line());
    }
}

void ini_store_t::add(const ini_line_t &line) {
    if (line.form == ini_form_t::ENTRY) {
        stored_t *entry = find_or_add(std::string(line.section) + ":" + line.key);
        entry->has_value = true;
        entry->value = line.value;
    } else if (line.form == ini_form_t::SECTION && strchr(line.section, ':') == nullptr) {
        // With a colon it would read as an entry without a value, which no look-up expects.
        find_or_add(line.section);
    }
}

ini_store_t::stored_t *ini_store_t::find_or_add(std::string name) {
    const auto [place, is_new] = known_.try_emplace(std::move(name));
    if (is_new) {
        in_order_.push_back(place);
    }
    return &place->second;
}

unique_dictionary_t ini_store_t::make() const {
    std::vector<pair_t> pairs;
    pairs.reserve(in_order_.size());
    for (const auto &place : in_order_) {
        const auto &[name, stored] = *place;
        pairs.emplace_back(name.c_str(), stored.has_value ? stored.value.c_str() : nullptr);
    }
    return make_dictionary(pairs);
}

dictionary *ini_load(const char *path) noexcept {
    const unique_file_t file(fopen(path, "re"));
    if (!file) {
        return nullptr;
    }
    ini_store_t store;
    ini_read(file.get(), [&](const ini_line_t &line) { store.add(line); });
    return store.make().release();
}

std::vector<ini_section_t> ini_sections(const dictionary *dict) {
    std::vector<ini_section_t> sections;
    std::map<std::string_view, size_t> by_name;
    const auto count = static_cast<size_t>(dict->n);
    for (size_t slot = 0; slot < count; slot++) {
        if (strchr(dict->key[slot], ':') == nullptr) {
            by_name[dict->key[slot]] = sections.size();
            sections.push_back({dict->key[slot], {}});
        }
    }
    for (size_t slot = 1; slot < count; slot++) {
        const std::string_view name(dict->key[slot]);
        const auto section = by_name.find(before_colon(name));
        if (section != by_name.end() && section->first.size() < name.size()) {
            sections[section->second].slots.push_back(slot);
        }
    }
    return sections;
}

unique_dictionary_t ini_section_alone(const dictionary *dict, const ini_section_t &section) {
    std::vector<pair_t> pairs = {{section.name, nullptr}};
    for (const size_t slot : section.slots) {
        pairs.emplace_back(dict->key[slot], dict->val[slot]);
    }
    return make_dictionary(pairs);
}

const char *iniparser_getstr(const dictionary *dict, const char *key) noexcept {
    return iniparser_getstring(dict, key, nullptr);
}

int iniparser_get_next_kv(const dictionary *dict, const char *prefix, int cursor, const char **key,
                          const char **value) noexcept {
    if (dict == nullptr) {
        return -1;
    }
    const size_t length = strlen(prefix);
    for (int slot = cursor + 1; slot < static_cast<int>(dict->size); slot++) {
        if (dict->key[slot] != nullptr && strncmp(dict->key[slot], prefix, length) == 0) {
            *key = dict->key[slot];
            *value = dict->val[slot];
            return slot;
        }
    }
    return 0;
}
