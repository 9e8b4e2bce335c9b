// Templates: what stands for the call address, the message and the rest in a rule's texts.
#pragma once

#include <string_view>

#include "tables.h"
#include "text.h"

// What the placeholders of a template stand for.
struct placeholders_t {
    int alrm;             // alarm code, named as alarm_name() does
    const char *number;   // call address, may be null
    const char *message;  // may be null
    const value_t *values;
    const call_fields_t *fields = nullptr;  // null: the words for them and the line are copied
    const char *line = "";                  // the pager's name
};

// What a template is for, and so what a replacement must not be able to do there.
enum class quoting_t {
    NONE,       // copied as it is
    COMMAND,    // one word of a shell's command line, in single quotes
    NAME,       // letters, digits and * + _ . - of a call file's channel, context or extension
    CALLER_ID,  // a call file's caller id: no control character, and nothing that begins a comment
                // or belongs to its form, which are # " < > and an unescaped ;
};

// Whether quoting_t::NAME lets a character through.
bool is_name_character(char c) noexcept;

// The size of a buffer for a call file's field with quoting. The PBX reads a line in pieces of 255
// characters and would take the rest of a longer one for another setting.
constexpr int QUOTED_FIELD_SIZE = 241;

// Appends a replacement to a line.
void append_quoted(text_writer_t *line, std::string_view text, quoting_t quoting) noexcept;

// Expands a template into `line`.
//   line, size  the caller's buffer and its size in bytes; filled with zeros first, and what does
//               not fit into size - 1 bytes is cut
//   fmt         template: %number%, %alarm%, %message%, and "$" followed by the name of a value; with
//               `fields` %priority%, %type%, %beep%, %transmissions% and %line% too; everything else,
//               "%espa_if%" included, is copied
//   quoting     of every replacement; the template's own text is copied as it is
// Returns whether everything fitted.
//
// At a "$" every value is tried once in table order, so values that stand next to each other in
// that order are all replaced; the byte after the last one is copied as it is and starts no
// placeholder. Values are used up to the first one without a name.
bool expand_template(char *line, int size, std::string_view fmt, const placeholders_t &with,
                     quoting_t quoting) noexcept;

// expand_template() without quoting; `pager` is not consulted. Returns the length of the text in
// `line`.
int format_string(char *line, int size, const char *fmt, int alrm, const char *number,
                  const char *msg, pager_t *pager, value_t *values) noexcept;
