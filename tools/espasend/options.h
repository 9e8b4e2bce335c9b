// What espasend is asked to do.
#pragma once

#include <string>
#include <vector>

#include "control_station.h"
#include "line.h"

struct options_t {
    int port = -1;
    std::string bind = "127.0.0.1";
    std::string connect;
    std::string device;
    serial_settings_t serial;
    bool ascii = false;
    bool standard = false;
    std::string own = "1";
    std::string to = "2";
    std::string also_poll;    // digits with commas between them
    std::string also_select;  // the same
    int poll = 2;
    bool enq = false;
    call_t call;
    std::vector<std::string> messages;
    int count = 1;
    int interval = 0;
    int wait = 30;
    int hold = 0;
    int repeat = -1;  // -1: the default
    int garble = 0;
    std::string record;  // a file; empty: none
    std::string replay;  // the same; "-": standard input
};

// Reads the arguments. Prints what is wrong with them, or the help, and ends the process then.
options_t parse_options(int argc, char **argv);

// The digits of a list with commas between them.
std::string digits_of(const std::string &list);
