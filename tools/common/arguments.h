// The arguments of a program, as getopt_long(3) reads them: one table of its options, from which the
// help is made too.
#pragma once

#include <functional>
#include <string>
#include <vector>

// What is done with the argument of an option, or with "" for one that has none.
using option_setter_t = std::function<void(const std::string &argument)>;

class arguments_t {
  public:
    // program       its name, in front of each message
    // usage_status  what the process exits with when an argument is wrong
    arguments_t(std::string program, int usage_status)
        : program_(std::move(program)), usage_status_(usage_status) {}

    // A piece of the help that stands as it is, between the options added before and after it.
    void text(const std::string &piece);

    // -h and --help, which print the help and end the process.
    void help_flag();

    // An option.
    //   form  as the help shows it: "-l, --listen PORT", "--json"
    //   help  what it does, in lines
    void option(const std::string &form, const std::string &help, option_setter_t set);

    // The same for the usual values. The address must be valid during parse().
    void flag(const std::string &form, const std::string &help, bool *value);
    void text_option(const std::string &form, const std::string &help, std::string *value);
    // A decimal number from `least` to `most`.
    void number(const std::string &form, const std::string &help, int least, int most, int *value);

    // Reads the arguments in their order and returns those that belong to no option, of which there
    // can be `most_operands`.
    std::vector<std::string> parse(int argc, char **argv, size_t most_operands);

    // Prints what is wrong with the arguments and ends the process.
    [[noreturn]] void refuse(const std::string &why) const;

  private:
    struct row_t {
        std::string form;
        std::string name;  // without its dashes; empty: a piece of text, which is `help`
        char letter;       // 0: none
        bool has_argument;
        std::string help;
        option_setter_t set;
    };

    const row_t *find(int value) const;
    std::string help() const;

    std::string program_;
    int usage_status_;
    std::vector<row_t> rows_;
};
