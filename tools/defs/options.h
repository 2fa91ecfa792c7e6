// The command line of both compilers: each option is a row of a table, from which the parser and --help come.
#ifndef DEFS_OPTIONS_H
#define DEFS_OPTIONS_H

#include <string>
#include <vector>

namespace defs {

struct Options {
    std::vector<std::string> inputs;
    std::string output;               // the binary file
    std::string header;               // the C header
    std::string dump;                 // a binary file to print
    std::string rows;                 // fdlc
    std::vector<std::string> fields;  // sdlc
};

// One of the two places, by the option's kind.
struct OptionRow {
    const char *name;
    const char *argument;
    const char *help;
    std::string Options::*text;
    std::vector<std::string> Options::*list;
};

struct Program {
    const char *name;
    const char *purpose;
    std::vector<OptionRow> rows;
    int (*work)(const Options &options);  // the exit status
};

// The whole of main: 2 for a wrong command line, 0 behind --help, else what `work` gives; 1 if it throws.
int run_program(const Program &program, int count, char **words);

}  // namespace defs

#endif
