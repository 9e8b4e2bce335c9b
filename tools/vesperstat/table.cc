#include "table.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "printable.h"

namespace {

constexpr std::string_view RED = "\033[1;31m";
constexpr std::string_view YELLOW = "\033[33m";
constexpr std::string_view GREEN = "\033[32m";
constexpr std::string_view BOLD = "\033[1m";
constexpr std::string_view PLAIN = "\033[0m";

constexpr std::array<std::string_view, 5> LEVEL_COLOURS = {GREEN, YELLOW, YELLOW, RED, RED};

constexpr size_t COLUMNS = 8;
constexpr size_t GAP = 2;  // blanks between two columns

using cells_t = std::array<std::string, COLUMNS>;
using widths_t = std::array<size_t, COLUMNS>;

struct row_t {
    level_t level = level_t::OK;
    cells_t cells;
};

size_t width_of(const std::string &text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(),
                                             [](unsigned char c) { return (c & 0xC0) != 0x80; }));
}

std::string error_words(const line_status_t &line) {
    const int64_t failed = sum_of(line.actions, "failed");
    std::string words;
    if (line.check_errors > 0) {
        words = std::to_string(line.check_errors) + " check";
    }
    if (failed > 0) {
        words += (words.empty() ? "" : ", ") + std::to_string(failed) + " action";
    }
    return words.empty() ? "-" : words;
}

row_t make_row(const report_t &report, const line_status_t &line, double now) {
    const bool is_known = is_running(report.problems);
    const std::string state(LINE_STATES[static_cast<size_t>(line.state)]);
    const double last = line.last_message;
    row_t row;
    row.level = is_known ? worst_level(report.problems, &line.line) : level_t::CRITICAL;
    row.cells = {report.instance,
                 line.line,
                 line.host + ":" + line.port,
                 is_known ? state + " " + duration_words(now - line.state_since) : "was " + state,
                 line.protocol,
                 std::to_string(line.messages),
                 last > 0 ? duration_words(now - last) + " ago" : "-",
                 error_words(line)};
    for (std::string &cell : row.cells) {
        cell = printable(cell);
    }
    return row;
}

std::vector<row_t> make_rows(const std::vector<report_t> &reports, double now) {
    std::vector<row_t> rows;
    for (const report_t &report : reports) {
        for (const line_status_t &line : report.status.lines) {
            rows.push_back(make_row(report, line, now));
        }
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const row_t &a, const row_t &b) { return a.level > b.level; });
    return rows;
}

std::string coloured(std::string_view colour, const std::string &text, bool with_colour) {
    return with_colour ? std::string(colour) + text + std::string(PLAIN) : text;
}

std::string lay_out(const cells_t &cells, const widths_t &widths) {
    std::string text;
    size_t padding = 0;
    for (size_t column = 0; column < COLUMNS; column++) {
        if (widths[column] > 0) {
            text += std::string(padding, ' ') + cells[column];
            padding = widths[column] - width_of(cells[column]) + GAP;
        }
    }
    return text;
}

// The column of instances is as wide as nothing where there is one.
std::string make_table(const std::vector<row_t> &rows, bool with_several, bool with_colour) {
    const cells_t heading = {with_several ? "INSTANCE" : "",
                             "LINE",
                             "ADDRESS",
                             "STATE",
                             "PROTOCOL",
                             "MESSAGES",
                             "LAST MESSAGE",
                             "ERRORS"};
    widths_t widths{};
    for (size_t column = 0; column < COLUMNS; column++) {
        widths[column] = heading[column].size();
        for (const row_t &row : rows) {
            widths[column] = std::max(widths[column], width_of(row.cells[column]));
        }
    }
    std::string table = coloured(BOLD, lay_out(heading, widths), with_colour) + "\n";
    for (const row_t &row : rows) {
        table += coloured(LEVEL_COLOURS[static_cast<size_t>(row.level)], lay_out(row.cells, widths),
                          with_colour && row.level != level_t::OK) +
                 "\n";
    }
    return table;
}

}  // namespace

std::string report_table(const std::vector<report_t> &reports, double now, bool with_colour) {
    std::vector<sentence_t> sentences = make_sentences(reports);
    if (sentences.empty()) {
        sentences.push_back({level_t::OK, "Nothing is wrong: " + make_summary(reports, now)});
    }
    std::string text;
    for (const sentence_t &sentence : sentences) {
        const std::string_view colour = LEVEL_COLOURS[static_cast<size_t>(sentence.level)];
        text += coloured(colour, printable(sentence.text), with_colour) + "\n";
    }
    const std::vector<row_t> rows = make_rows(reports, now);
    if (!rows.empty()) {
        text += "\n" + make_table(rows, reports.size() > 1, with_colour);
    }
    return text;
}
