// The numbers that the service COUNT was called with: a set that shows whether each call was done once, also
// where several servers have shared the work.
#ifndef CLHSIM_COUNTS_H
#define CLHSIM_COUNTS_H

#include <cstdint>
#include <string>

namespace clhsim {

struct Server;

// A line a number, in a file that is only appended to, so that servers don't disturb one another; without a
// file in memory.
struct Counts {
    int fd = -1;
    std::string path;
    std::string lines;  // without a file
};

bool open_counts(Counts &counts, const std::string &path);  // on failure errno says why
void close_counts(Counts &counts);

// The command: how many calls there were, how many different numbers, and which came twice.
std::string list_counts(const Server &server);

}  // namespace clhsim

#endif
