#include "toolbox.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

// The build tells its programs where the library is; all else follows from there.
const std::string LIBRARY_DIR = std::filesystem::path(VORNTHR_FILE).parent_path();
const std::string BUILD_DIR = std::filesystem::path(LIBRARY_DIR).parent_path();
const std::string CLHSIM_PATH = BUILD_DIR + "/bin/clhsim";

std::string setting(const std::string &name)
{
    for (const std::string &line : lines_of(read_file(BUILD_DIR + "/CMakeCache.txt"))) {
        if (line.rfind(name + ":", 0) == 0) {
            return line.substr(line.find('=') + 1);
        }
    }
    return "";
}

outcome run(const std::string &command)
{
    outcome result = {-1, ""};
    FILE *stream = popen(("{ " + command + "\n} 2>&1 </dev/null").c_str(), "r");
    if (stream == nullptr) {
        return result;
    }
    char piece[4096];
    for (size_t got; (got = fread(piece, 1, sizeof piece, stream)) > 0;) {
        result.output.append(piece, got);
    }
    int status = pclose(stream);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

std::string read_file(const std::filesystem::path &path)
{
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_file(const std::filesystem::path &path, const std::string &text)
{
    std::ofstream(path) << text;
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

temp_dir::temp_dir()
{
    std::string name = std::filesystem::temp_directory_path() / "vorn_interface_XXXXXX";
    path = mkdtemp(name.data()) == nullptr ? "" : name;
}

temp_dir::~temp_dir()
{
    if (!path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
}

place build_tree()
{
    return {PROJECT_DIR "/include", LIBRARY_DIR};
}

outcome compile_program(const place &where, const std::filesystem::path &source,
                        const std::filesystem::path &program, const std::string &options)
{
    const std::string sanitize = setting("VORN_SANITIZE");
    return run(setting("CMAKE_C_COMPILER") + " -std=c99 -Wall -Wextra -Werror " + options + " " +
               (sanitize.empty() ? "" : "-fsanitize=" + sanitize + " ") + source.string() + " -o " +
               program.string() + " -I" + where.include_dir + " -L" + where.library_dir +
               " -lvornthr -Wl,-rpath-link," + where.library_dir);
}

outcome run_program(const place &where, const std::filesystem::path &program, const std::string &environment)
{
    return run("LD_LIBRARY_PATH=" + where.library_dir + " " + environment + " " + program.string());
}

server::server(const std::vector<std::string> &options)
{
    std::vector<std::string> words = {"clhsim", "--port", "0"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int ends[2];
    pid = -1;
    out = -1;
    if (pipe(ends) != 0) {
        return;
    }
    pid = fork();
    if (pid == 0) {
        dup2(ends[1], 1);
        close(ends[0]);
        close(ends[1]);
        execv(CLHSIM_PATH.c_str(), arguments.data());
        _exit(127);
    }
    close(ends[1]);
    out = ends[0];
    // It says where it listens once it does.
    const std::string mark = "clhsim: listening on ";
    std::string text;
    size_t begin, end;
    for (;;) {
        begin = text.find(mark);
        end = begin == std::string::npos ? begin : text.find('\n', begin);
        if (end != std::string::npos) {
            break;
        }
        pollfd poll_out = {out, POLLIN, 0};
        char piece[512];
        ssize_t got;
        if (poll(&poll_out, 1, 60000) != 1 || (got = read(out, piece, sizeof piece)) <= 0) {
            return;
        }
        text.append(piece, static_cast<size_t>(got));
    }
    begin += mark.size();
    address = text.substr(begin, text.find_first_of(" \n", begin) - begin);
}

server::~server()
{
    if (pid > 0) {
        kill(pid, SIGTERM);
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    if (out >= 0) {
        close(out);
    }
}
