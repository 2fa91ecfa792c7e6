// What a test of the logs needs: a directory of its own, and the text that goes to a standard stream.
#ifndef VORN_TESTS_RUNTIME_CAPTURE_H
#define VORN_TESTS_RUNTIME_CAPTURE_H

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <unistd.h>

struct TempDir {
    TempDir()
    {
        char name[] = "/tmp/vorn-runtime-XXXXXX";
        path = mkdtemp(name);
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string operator/(const std::string &name) const { return path + "/" + name; }

    std::string path;
};

inline std::string read_file(const std::string &name)
{
    std::ifstream stream(name, std::ios::binary);
    std::stringstream text;
    text << stream.rdbuf();
    return text.str();
}

inline void write_file(const std::string &name, const std::string &text)
{
    std::ofstream(name, std::ios::binary) << text;
}

// What `action` writes to stdout and stderr.
struct Output {
    std::string out, err;
};

inline Output output_of(const std::function<void()> &action)
{
    TempDir directory;
    std::string names[2] = {directory / "out", directory / "err"};
    int saved[2], streams[2] = {STDOUT_FILENO, STDERR_FILENO};
    fflush(stdout);
    fflush(stderr);
    for (int i = 0; i < 2; i++) {
        saved[i] = dup(streams[i]);
        int fd = open(names[i].c_str(), O_CREAT | O_RDWR | O_APPEND, 0600);
        dup2(fd, streams[i]);
        close(fd);
    }
    action();
    fflush(stdout);
    fflush(stderr);
    for (int i = 0; i < 2; i++) {
        dup2(saved[i], streams[i]);
        close(saved[i]);
    }
    return {read_file(names[0]), read_file(names[1])};
}

// The line's time stamp, "120501.000321", taken off; the text as it is if it has none.
inline std::string without_time(const std::string &line)
{
    if (line.size() < 13 || line[6] != '.')
        return line;
    for (size_t i = 0; i < 13; i++)
        if (i != 6 && (line[i] < '0' || line[i] > '9'))
            return line;
    return line.substr(13);
}

#endif
