#include "options.h"

#include <cstdio>
#include <exception>

namespace defs {

static int usage_error(const Program &program, const std::string &problem)
{
    fprintf(stderr, "%s: %s\ntry %s --help\n", program.name, problem.c_str(), program.name);
    return 2;
}

static int print_help(const Program &program)
{
    printf("%s: %s\n\nusage: %s [options] TEXT...\n       %s --dump FILE\n\n", program.name, program.purpose,
           program.name, program.name);
    for (const OptionRow &row : program.rows)
        printf("  %-22s %s\n", (std::string(row.name) + " " + row.argument).c_str(), row.help);
    return 0;
}

static const OptionRow *find_option(const Program &program, const std::string &name)
{
    for (const OptionRow &row : program.rows) {
        if (name == row.name)
            return &row;
    }
    return nullptr;
}

// What is wrong, or nothing.
static std::string parse(const Program &program, const std::vector<std::string> &words, Options &options)
{
    for (size_t i = 0; i < words.size(); i++) {
        const std::string &word = words[i];
        if (word.empty() || word[0] != '-') {
            options.inputs.push_back(word);
            continue;
        }
        size_t equals = word.starts_with("--") ? word.find('=') : word.npos;
        const OptionRow *row = find_option(program, word.substr(0, equals));
        if (!row)
            return "unknown option " + word;
        std::string value;
        if (equals != word.npos)
            value = word.substr(equals + 1);
        else if (++i < words.size())
            value = words[i];
        if (value.empty())
            return std::string(row->name) + " needs " + row->argument;
        if (row->list)
            (options.*row->list).push_back(value);
        else
            options.*row->text = value;
    }
    if (!options.dump.empty())
        return options.inputs.empty() && options.output.empty() && options.header.empty()
                   ? ""
                   : "--dump stands alone";
    if (options.inputs.empty())
        return "no text to compile";
    return options.output.empty() && options.header.empty() ? "nothing to write: give -o or --c-header" : "";
}

int run_program(const Program &program, int count, char **words)
{
    try {
        std::vector<std::string> all(words + (count > 0), words + count);
        for (const std::string &word : all) {
            if (word == "--help" || word == "-h")
                return print_help(program);
        }
        Options options;
        std::string problem = parse(program, all, options);
        return problem.empty() ? program.work(options) : usage_error(program, problem);
    } catch (const std::exception &error) {
        fprintf(stderr, "%s: %s\n", program.name, error.what());
        return 1;
    }
}

}  // namespace defs
