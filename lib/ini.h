// Reads the daemon's INI dialect into an iniparser dictionary; typed look-ups, enumeration and
// release are the iniparser library's own.
//
// The dialect: lines are read in pieces of at most 1023 characters. "[name]" opens a section, the
// name untrimmed and in lower case. A key line is key = "value", key = 'value' or key = value,
// where the plain form ends at the first ';' or '#'. Keys are in lower case and without trailing
// blanks, values keep their case and lose their trailing blanks; '' and "" are the empty text.
// Everything else, "key =" included, is skipped without a message. A repeated key keeps its place
// and takes the last value.
#pragma once

#include <iniparser.h>

// Reads the file at `path`. Returns a dictionary that the caller releases with
// iniparser_freedict(), or null when the file cannot be opened; nothing is printed. Entries are
// stored as "section:key"; a section whose name holds a colon is not enumerated.
dictionary *ini_load(const char *path) noexcept;

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
