#include "outline.h"

#include <cctype>

#include "files.h"
#include "instance.h"

namespace {

bool is_remark(std::string_view text) {
    const std::string_view rest = without_blanks(text);
    return rest.empty() || rest[0] == ';' || rest[0] == '#';
}

bool is_text(reading_t reading) {
    return reading != reading_t::NUMBER && reading != reading_t::YES_NO;
}

// Listens to the lines of a file.
class outliner_t {
  public:
    outliner_t(outline_t *outline, findings_t *findings)
        : outline_(outline), findings_(findings), open_(&outline->sections.emplace_back()) {
        open_->kind = section_kind_t::UNLISTED;
        open_->line = 1;
    }

    void hear(const ini_line_t &line) {
        if (line.is_cut) {
            findings_->warn(line.number, "long-line", "the line is longer than ", INI_PIECE_LENGTH,
                            " characters: what comes behind them is read as a line of its own");
        }
        switch (line.form) {
            case ini_form_t::SECTION:
                hear_section(line);
                break;
            case ini_form_t::ENTRY:
                hear_entry(line);
                break;
            case ini_form_t::NO_VALUE:
                hear_key(line);
                break;
            case ini_form_t::NONE:
                findings_->warn(line.number, "no-form", "'", without_blanks(line.text),
                                "' is neither a section nor a key with a value: passed over");
                break;
            case ini_form_t::REMARK:
                break;
        }
    }

  private:
    void hear_section(const ini_line_t &line) {
        if (line.rest.empty()) {
            findings_->warn(line.number, "open-section",
                            "the section's name has no ']': it goes on to the end of the line");
        } else if (!is_remark(line.rest.substr(1))) {
            findings_->warn(line.number, "no-form", "'", without_blanks(line.rest.substr(1)),
                            "' behind the section's name is passed over");
        }
        const std::string_view name(line.section);
        const auto [known, is_new] = by_name_.try_emplace(line.section, outline_->sections.size());
        if (!is_new) {
            open_ = &outline_->sections[known->second];
            findings_->warn(line.number, "twice", "section [", name, "] comes again (line ",
                            open_->line, "): its keys belong to that one");
            return;
        }
        open_ = &outline_->sections.emplace_back();
        open_->name = name;
        open_->kind = section_kind(name);
        open_->line = line.number;
        check_section_name();
    }

    void check_section_name() const {
        const std::string &name = open_->name;
        const size_t size =
            open_->kind == section_kind_t::RULE ? sizeof rule_t::name : sizeof pager_t::name;
        if (name.find(':') != std::string::npos) {
            findings_->warn(open_->line, "section-name", "the name [", name,
                            "] holds a colon: the section is neither a pager nor a rule");
        } else if (open_->kind == section_kind_t::SKIPPED) {
            findings_->warn(open_->line, "section-name", "[", name,
                            "] begins with 'logger' and is skipped: only [logger] is read");
        } else if (name.size() >= size) {
            findings_->warn(open_->line, "section-name", "the name of the section is ", name.size(),
                            " characters long: it is cut at ", size - 1);
        }
    }

    void hear_entry(const ini_line_t &line) {
        check_end(line);
        const auto [place, is_new] = open_->by_key.try_emplace(line.key, open_->entries.size());
        if (is_new) {
            open_->entries.push_back({line.key, line.value, line.number});
            return;
        }
        file_entry_t &known = open_->entries[place->second];
        findings_->warn(line.number, "twice", line.key, " comes again (line ", known.line,
                        "): the last value holds, ", line.key, " = ", line.value);
        known.value = line.value;
        known.line = line.number;
    }

    void hear_key(const ini_line_t &line) {
        const std::string_view rest = without_blanks(line.rest);
        if (rest.empty()) {
            findings_->warn(line.number, "no-value", line.key,
                            " has no value: it counts as not there");
        } else {
            findings_->warn(line.number, "no-value", line.key, " has no value, because '",
                            rest.front(),
                            "' begins a comment: it counts as not there. Put the value in quotes");
        }
    }

    // Whether a value ended where its writer meant it to.
    void check_end(const ini_line_t &line) const {
        if (line.quote != 0 && line.rest.empty()) {
            findings_->warn(line.number, "cut", line.key, " has no closing ", line.quote,
                            ": the value goes to the end of the line");
        } else if (line.quote != 0 && !is_remark(line.rest.substr(1))) {
            findings_->warn(line.number, "cut", "the value of ", line.key, " ends at the second ",
                            line.quote, ": ", without_blanks(line.rest.substr(1)),
                            " is passed over");
        } else if (line.quote == 0 && is_cut_by_mark(line)) {
            findings_->warn(line.number, "cut", "the value of ", line.key, " ends at the '",
                            line.rest.front(), "' and is '", line.value,
                            "': put it in quotes if more belongs to it");
        }
    }

    // A comment has a blank before it. In patterns and templates it needs one behind its mark too,
    // and in a command it could be a second command.
    bool is_cut_by_mark(const ini_line_t &line) const {
        const config_key_t *key = find_key(open_->kind, line.key);
        if (line.rest.empty() || (key != nullptr && !is_text(key->reading))) {
            return false;
        }
        const char before = line.rest.data()[-1];
        const char behind = line.rest.size() > 1 ? line.rest[1] : ' ';
        if (isspace(static_cast<unsigned char>(before)) == 0) {
            return true;
        }
        const bool is_plain = key == nullptr || key->reading == reading_t::TEXT;
        const bool is_command = line.key == std::string_view("callscript");
        return !is_plain && (is_command || isspace(static_cast<unsigned char>(behind)) == 0);
    }

    outline_t *outline_;
    findings_t *findings_;
    file_section_t *open_;
    std::map<std::string, size_t> by_name_;
};

}  // namespace

const file_entry_t *file_section_t::find(std::string_view key) const {
    const auto found = by_key.find(key);
    return found != by_key.end() ? &entries[found->second] : nullptr;
}

int file_section_t::line_of(std::string_view key) const {
    const file_entry_t *entry = find(key);
    return entry != nullptr ? entry->line : line;
}

std::string file_section_t::text(std::string_view key) const {
    const config_key_t *row = find_key(kind, key);
    const file_entry_t *entry = find(key);
    if (entry == nullptr) {
        const char *absent = row != nullptr ? absent_text(*row) : nullptr;
        return absent != nullptr ? absent : "";
    }
    return row != nullptr && row->size > 0 ? entry->value.substr(0, row->size - 1) : entry->value;
}

int file_section_t::number(const config_key_t &key) const {
    const file_entry_t *entry = find(key.name);
    if (entry == nullptr) {
        return key.number;
    }
    constexpr const char *NAME = "section:key";
    const unique_dictionary_t alone(dictionary_new(0));
    dictionary_set(alone.get(), NAME, entry->value.c_str());
    return key.reading == reading_t::YES_NO ? iniparser_getboolean(alone.get(), NAME, key.number)
                                            : iniparser_getint(alone.get(), NAME, key.number);
}

const file_section_t &outline_t::logger() const {
    static const file_section_t absent{"logger", section_kind_t::LOGGER, 1, {}};
    for (const file_section_t &section : sections) {
        if (section.kind == section_kind_t::LOGGER) {
            return section;
        }
    }
    return absent;
}

int read_configuration(const char *path, std::string *text) noexcept {
    return read_whole(path, 0, MAX_CONFIGURATION_SIZE, text);
}

void outline_text(std::string_view text, outline_t *outline, findings_t *findings) {
    ini_store_t store;
    outliner_t outliner(outline, findings);
    const unique_file_t file(fmemopen(const_cast<char *>(text.data()), text.size(), "r"));
    if (file) {
        ini_read(file.get(), [&](const ini_line_t &line) {
            store.add(line);
            outliner.hear(line);
        });
    }
    outline->dict = store.make();
}
