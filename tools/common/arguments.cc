#include "arguments.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "printable.h"

namespace {

constexpr int FIRST_LONG = 256;  // getopt_long()'s value of row 0; lower ones are letters

// What is wrong with the argument at which getopt_long() has just returned `value`, '?' or ':'. It
// would print it itself, with the argument as it is.
std::string option_fault(int value, char **argv) {
    const bool has_letter = optopt > 0 && optopt < FIRST_LONG;
    const std::string name =
        has_letter ? "-" + std::string(1, static_cast<char>(optopt)) : argv[optind - 1];
    return "option '" + name + (value == ':' ? "' needs an argument" : "' is none");
}

}  // namespace

void arguments_t::text(const std::string &piece) {
    rows_.push_back({"", "", 0, false, piece, nullptr});
}

void arguments_t::option(const std::string &form, const std::string &help, option_setter_t set) {
    const size_t dashes = form.find("--");
    const size_t blank = std::min(form.find(' ', dashes), form.size());
    rows_.push_back({(dashes == 0 ? "    " : "") + form,
                     form.substr(dashes + 2, blank - dashes - 2), dashes == 0 ? '\0' : form[1],
                     blank < form.size(), help, std::move(set)});
}

void arguments_t::flag(const std::string &form, const std::string &help, bool *value) {
    option(form, help, [value](const std::string &) { *value = true; });
}

void arguments_t::text_option(const std::string &form, const std::string &help,
                              std::string *value) {
    option(form, help, [value](const std::string &argument) { *value = argument; });
}

void arguments_t::number(const std::string &form, const std::string &help, int least, int most,
                         int *value) {
    const std::string name = form.substr(form.find("--"), form.rfind(' ') - form.find("--"));
    option(form, help, [=, this](const std::string &argument) {
        const char *end = argument.data() + argument.size();
        const auto [stop, error] = std::from_chars(argument.data(), end, *value);
        if (error != std::errc() || stop != end || *value < least || *value > most) {
            refuse(name + " takes a number from " + std::to_string(least) + " to " +
                   std::to_string(most) + ", not '" + argument + "'");
        }
    });
}

void arguments_t::help_flag() {
    option("-h, --help", "show this text", [this](const std::string &) {
        fputs(help().c_str(), stdout);
        exit(EXIT_SUCCESS);
    });
}

std::vector<std::string> arguments_t::parse(int argc, char **argv, size_t most_operands) {
    std::string letters = ":";
    std::vector<::option> options;
    for (size_t i = 0; i < rows_.size(); i++) {
        const row_t &row = rows_[i];
        if (row.letter != 0) {
            letters += row.letter;
            letters += row.has_argument ? ":" : "";
        }
        if (!row.name.empty()) {
            options.push_back({row.name.c_str(), row.has_argument ? 1 : 0, nullptr,
                               FIRST_LONG + static_cast<int>(i)});
        }
    }
    options.push_back({});
    for (int value = 0;
         (value = getopt_long(argc, argv, letters.c_str(), options.data(), nullptr)) != -1;) {
        const row_t *row = find(value);
        if (row == nullptr) {
            refuse(option_fault(value, argv));
        }
        row->set(row->has_argument ? optarg : "");
    }
    const std::vector<std::string> operands(argv + optind, argv + argc);
    if (operands.size() > most_operands) {
        refuse("unexpected argument '" + operands[most_operands] + "'");
    }
    return operands;
}

// Of what getopt_long() returned; null for '?' and ':'.
const arguments_t::row_t *arguments_t::find(int value) const {
    if (value >= FIRST_LONG) {
        return &rows_[static_cast<size_t>(value - FIRST_LONG)];
    }
    const auto row = std::find_if(rows_.begin(), rows_.end(), [value](const row_t &candidate) {
        return candidate.letter == value;
    });
    return row == rows_.end() ? nullptr : &*row;
}

std::string arguments_t::help() const {
    size_t width = 0;
    for (const row_t &row : rows_) {
        width = std::max(width, row.form.size());
    }
    std::string help;
    for (const row_t &row : rows_) {
        if (row.name.empty()) {
            help += row.help;
            continue;
        }
        std::string left = "  " + row.form;
        std::istringstream lines(row.help);
        for (std::string line; std::getline(lines, line);) {
            left.resize(width + 4, ' ');
            help += left + line + '\n';
            left.clear();
        }
    }
    return help;
}

void arguments_t::refuse(const std::string &why) const {
    fprintf(stderr, "%s: %s (try --help)\n", program_.c_str(), printable(why).c_str());
    exit(usage_status_);
}
