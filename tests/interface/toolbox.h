// What the tests of the interface work with: commands, a folder that goes away, programs compiled on the spot,
// and the stand-in server.
#ifndef TESTS_INTERFACE_TOOLBOX_H
#define TESTS_INTERFACE_TOOLBOX_H

#include <filesystem>
#include <string>
#include <vector>

// The build that this program belongs to.
extern const std::string LIBRARY_DIR, BUILD_DIR, CLHSIM_PATH;
std::string setting(const std::string &name);  // an entry of the build's cache, such as CMAKE_C_COMPILER

struct outcome {
    int status;          // exit status; 128 and more: ended by that signal less 128
    std::string output;  // what it wrote to both streams
};
outcome run(const std::string &command);

std::string read_file(const std::filesystem::path &path);
void write_file(const std::filesystem::path &path, const std::string &text);
std::vector<std::string> lines_of(const std::string &text);

struct temp_dir {
    std::filesystem::path path;
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
};

// Where a program finds headers and libraries.
struct place {
    std::string include_dir, library_dir;
};
place build_tree();

// Compiles a C program against the library as found in `where` into `program`.
outcome compile_program(const place &where, const std::filesystem::path &source,
                        const std::filesystem::path &program, const std::string &options = "");
// Starts a program with the library of `where`; `environment` stands before it ("A=1 B=2").
outcome run_program(const place &where, const std::filesystem::path &program,
                    const std::string &environment = "");

// A stand-in server on a free port, ended with the record.
struct server {
    std::string address;  // "127.0.0.1:PORT"; empty if it didn't start
    explicit server(const std::vector<std::string> &options = {});
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;

  private:
    int pid;
    int out;
};

#endif
