// A configuration file as it is written: its sections and keys with their lines.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "findings.h"
#include "ini.h"
#include "keys.h"

// Of a larger file nothing is read.
constexpr size_t MAX_CONFIGURATION_SIZE = 16 << 20;

struct file_entry_t {
    std::string key;    // lower case
    std::string value;  // the last one, which holds
    int line;           // where that stands
};

struct file_section_t {
    std::string name;  // lower case; empty: before the first section
    section_kind_t kind;
    int line;                           // where it is opened first
    std::vector<file_entry_t> entries;  // in the order of their first appearance
    std::map<std::string, size_t, std::less<>> by_key = {};  // the same

    // Null when the section does not have the key.
    const file_entry_t *find(std::string_view key) const;
    // The line of a key, or of the section that does not have it.
    int line_of(std::string_view key) const;
    // The text that the daemon takes for a text key, cut to its field.
    std::string text(std::string_view key) const;
    // What a number or yes/no key comes to.
    int number(const config_key_t &key) const;
};

struct outline_t {
    std::vector<file_section_t> sections;  // in the order of their first appearance
    unique_dictionary_t dict;              // the same, as the daemon reads it

    // The logger's section; an empty one at line 1 when there is none.
    const file_section_t &logger() const;
};

// Reads the file at `path`. Returns 0, or -1 with errno set as read_whole() does.
int read_configuration(const char *path, std::string *text) noexcept;

// Outlines the content of a file and finds what is wrong with its lines: forms, lengths,
// repetitions and values that end too early.
void outline_text(std::string_view text, outline_t *outline, findings_t *findings);
