#pragma once

// The command line of kiv_host and its --help text.

#include <string>
#include <vector>

#include "output.h"
#include "session.h"

namespace kiv_host {

struct options {
    bool help = false;
    bool version = false;
    bool demo = false;
    bool verbose = false;  // the service's shutdown lines on standard error
    bool bail = false;
    open_settings open;
    print_options print;
    std::vector<std::string> commands;  // -cmd, run first
    std::string path = ":memory:";
    std::vector<std::string> sql;  // SQL texts and dot-commands; {"-"}: standard input
};

// The --help text.
std::string usage_text();

// Fills `opts`; returns -1 when the arguments are usable, else the exit status (2, after the
// message on standard error).
int parse_arguments(int argc, char** argv, options& opts);

}  // namespace kiv_host
