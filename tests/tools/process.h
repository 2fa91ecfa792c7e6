// The compilers as a user runs them: as programs, in a folder that goes away.
#ifndef VORN_TESTS_TOOLS_PROCESS_H
#define VORN_TESTS_TOOLS_PROCESS_H

#include <stdio.h>
#include <sys/wait.h>

#include "runtime/capture.h"
#include "support/gtest.h"

struct outcome {
    int status;          // exit status; 128 and more: ended by that signal less 128
    std::string output;  // what it wrote to both streams
};

inline outcome run(const std::string &command)
{
    outcome result = {-1, ""};
    FILE *stream = popen(("{ " + command + "\n} 2>&1 </dev/null").c_str(), "r");
    if (stream == nullptr)
        return result;
    char piece[4096];
    for (size_t got; (got = fread(piece, 1, sizeof piece, stream)) > 0;)
        result.output.append(piece, got);
    int status = pclose(stream);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

// Runs a program in a folder, in which the tests' files have short names.
struct Toolbox : testing::Test {
    TempDir dir;

    outcome in_dir(const std::string &command) const { return run("cd " + dir.path + " && " + command); }
    outcome fdlc(const std::string &words) const { return in_dir(FDLC_PATH " " + words); }
    outcome sdlc(const std::string &words) const { return in_dir(SDLC_PATH " " + words); }
    void write(const std::string &name, const std::string &text) const { write_file(dir / name, text); }
    std::string read(const std::string &name) const { return read_file(dir / name); }
    bool exists(const std::string &name) const { return std::filesystem::exists(dir / name); }
    size_t files() const
    {
        std::filesystem::directory_iterator entries(dir.path), end;
        return static_cast<size_t>(std::distance(entries, end));
    }

    // Compiles a C program and gives what it prints.
    std::string print_of(const std::string &program, const std::string &text)
    {
        write(program + ".c", text);
        outcome compiled =
            in_dir("cc -std=c99 -Wall -Wextra -Werror " + program + ".c -o " + program + " && ./" + program);
        EXPECT_EQ(compiled.status, 0) << compiled.output;
        return compiled.output;
    }
};

// A 32-bit word of a binary file.
inline int32_t word_at(const std::string &bytes, size_t offset)
{
    int32_t word = 0;
    if (offset + sizeof word > bytes.size())
        ADD_FAILURE() << "no word at " << offset << " of " << bytes.size() << " bytes";
    else
        bytes.copy(reinterpret_cast<char *>(&word), sizeof word, offset);
    return word;
}

// A text that must not compile, and the error it must bring.
struct mistake {
    const char *text;
    const char *error;
};

#endif
