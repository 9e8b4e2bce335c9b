// Reads the daemon's INI dialect, line by line or into an iniparser dictionary; typed look-ups,
// enumeration and release are the iniparser library's own.
//
// The dialect: lines are read in pieces of at most 1023 characters. "[name]" opens a section, the
// name untrimmed and in lower case. A key line is key = "value", key = 'value' or key = value,
// where the plain form ends at the first ';' or '#'. Keys are in lower case and without trailing
// blanks, values keep their case and lose their trailing blanks; '' and "" are the empty text.
// Everything else, "key =" included, is skipped without a message. A repeated key keeps its place
// and takes the last value.
#pragma once

#include <iniparser.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

constexpr int INI_PIECE_LENGTH = 1023;

// What a piece of a line is.
enum class ini_form_t {
    REMARK,    // blank, or a comment
    SECTION,   // opens or continues a section
    ENTRY,     // a key with a value
    NO_VALUE,  // a key without one
    NONE,      // fits no form
};

// A line, or a piece of one that is longer than INI_PIECE_LENGTH.
struct ini_line_t {
    int number;             // of the line in its file, from 1
    bool is_cut;            // the line goes on, and its rest is the next piece
    ini_form_t form;        //
    std::string_view text;  // from its first character that is no blank to its end
    const char *section;    // the name of the section that is open, empty before the first
    const char *key;        // ENTRY and NO_VALUE
    const char *value;      // ENTRY
    char quote;             // of the value: '"' or '\'', 0 for a plain one
    std::string_view rest;  // SECTION, ENTRY, NO_VALUE: what of the text was not read, the closing
                            // bracket or quote included
};

// Hears of a line; its texts live until it returns.
using ini_listener_t = std::function<void(const ini_line_t &line)>;

// Reads a file to its end and hands every piece of every line to `listener`, in their order.
void ini_read(FILE *file, const ini_listener_t &listener) noexcept;

// Releases a dictionary when its owner goes.
struct dictionary_releaser_t {
    void operator()(dictionary *dict) const noexcept { iniparser_freedict(dict); }
};
using unique_dictionary_t = std::unique_ptr<dictionary, dictionary_releaser_t>;

// Makes a dictionary of the lines of a file, in time that hardly grows with what it has already.
// Entries are stored as "section:key"; a section whose name holds a colon is not enumerated. What
// comes again keeps its place and takes the last value.
class ini_store_t {
  public:
    // Lines that are neither a section nor an entry say nothing.
    void add(const ini_line_t &line);
    // Null without memory.
    unique_dictionary_t make() const;

  private:
    struct stored_t {
        bool has_value = false;
        std::string value;
    };
    using stored_map_t = std::map<std::string, stored_t, std::less<>>;

    stored_t *find_or_add(std::string name);

    stored_map_t known_;
    std::vector<stored_map_t::const_iterator> in_order_;
};

// Reads the file at `path`. Returns a dictionary that the caller releases with
// iniparser_freedict(), or null when the file cannot be opened; nothing is printed.
dictionary *ini_load(const char *path) noexcept;

// A section of a dictionary that enumerates it, and the slots of its entries in their order. Not
// among them is slot 0, which iniparser_get_next_kv() does not examine either.
struct ini_section_t {
    const char *name;  // owned by the dictionary
    std::vector<size_t> slots;
};

// All of them, as iniparser_getsecname() enumerates them.
std::vector<ini_section_t> ini_sections(const dictionary *dict);

// A dictionary of one section alone: its own name in slot 0, then its entries. A look-up that
// begins with the section's name and a colon finds there what it finds in the whole, and sooner.
// Null without memory.
unique_dictionary_t ini_section_alone(const dictionary *dict, const ini_section_t &section);

// Returns the value of an entry ("section:key", any case), owned by the dictionary, or null when
// the entry is absent.
const char *iniparser_getstr(const dictionary *dict, const char *key) noexcept;

// Finds the next entry whose stored name ("section:key", lower case) begins with `prefix`.
//   cursor      the slot after which the search starts: 0 at first, then each call's result
//   key, value  receive the entry's full name and value, both owned by the dictionary
// Returns the entry's slot, 0 when there is no further one (key and value untouched), or -1 without
// a dictionary. Slot 0 is never examined: it holds the file's first section.
int iniparser_get_next_kv(const dictionary *dict, const char *prefix, int cursor, const char **key,
                          const char **value) noexcept;
