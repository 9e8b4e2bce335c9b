#include "ini.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "files.h"

namespace {

constexpr int PIECE_SIZE = 1024;  // the longest piece of a line and its terminating zero

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

// The three forms of a key line, in the order in which they are tried.
bool scan_key_line(const char *line, char (&key)[PIECE_SIZE], char (&value)[PIECE_SIZE]) {
    if (sscanf(line, "%1023[^=] = \"%1023[^\"]\"", key, value) != 2 &&
        sscanf(line, "%1023[^=] = '%1023[^']'", key, value) != 2 &&
        sscanf(line, "%1023[^=] = %1023[^;#]", key, value) != 2) {
        return false;
    }
    drop_trailing_blanks(key);
    lower_case(key);
    drop_trailing_blanks(value);
    if (strcmp(value, "\"\"") == 0 || strcmp(value, "''") == 0) {
        value[0] = '\0';
    }
    return true;
}

void read_line(dictionary *dict, const char *line, char (&section)[PIECE_SIZE]) {
    while (is_blank(*line)) {
        line++;
    }
    if (*line == '\0' || *line == '#' || *line == ';') {
        return;
    }
    if (sscanf(line, "[%1023[^]]", section) == 1) {
        lower_case(section);
        // With a colon it would read as an entry without a value, which no look-up expects.
        if (strchr(section, ':') == nullptr) {
            dictionary_set(dict, section, nullptr);
        }
        return;
    }
    char key[PIECE_SIZE];
    char value[PIECE_SIZE];
    if (scan_key_line(line, key, value)) {
        dictionary_set(dict, (std::string(section) + ":" + key).c_str(), value);
    }
}

}  // namespace

dictionary *ini_load(const char *path) noexcept {
    const unique_file_t file(fopen(path, "re"));
    if (!file) {
        return nullptr;
    }
    dictionary *dict = dictionary_new(0);
    if (dict == nullptr) {
        return nullptr;
    }
    char section[PIECE_SIZE] = "";
    char line[PIECE_SIZE];
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        read_line(dict, line, section);
    }
    return dict;
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
