// Reads a call file by the PBX's rules. Fuzz targets and tests share it.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

// The settings in the content of a call file, as "KEY:VALUE", without the blanks around the value; a
// line without a colon comes as it is, an empty one too. A line is read in pieces of at most 255
// bytes, each of which is a line of its own. A comment begins at ";" without a backslash before it,
// which is left out, or at a "#" that comes first or behind a blank.
inline std::vector<std::string> read_as_pbx(std::string_view content) {
    constexpr size_t PIECE_SIZE = 255;
    std::vector<std::string> settings;
    while (!content.empty()) {
        const size_t end = std::min(content.find('\n'), content.size() - 1) + 1;
        const std::string_view line = content.substr(0, std::min(end, PIECE_SIZE));
        content.remove_prefix(line.size());
        std::string text;
        for (size_t i = 0; i < line.size() && line[i] != '\0'; i++) {
            const char before = i > 0 ? line[i - 1] : ' ';
            if ((line[i] == '#' && (before == ' ' || before == '\t')) ||
                (line[i] == ';' && before != '\\')) {
                break;
            }
            if (line[i] == ';') {
                text.pop_back();
            }
            text += line[i];
        }
        while (!text.empty() && static_cast<unsigned char>(text.back()) <= ' ') {
            text.pop_back();
        }
        const size_t colon = text.find(':');
        if (colon != std::string::npos) {
            text.erase(colon + 1, text.find_first_not_of(' ', colon + 1) - colon - 1);
        }
        settings.push_back(text);
    }
    return settings;
}
