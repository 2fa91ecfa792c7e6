#include "counts.h"

#include "services.h"

#include <fcntl.h>
#include <fstream>
#include <map>
#include <sstream>
#include <unistd.h>

namespace clhsim {

constexpr size_t MOST_IN_MEMORY = 64 * 1024 * 1024;  // bytes
constexpr size_t MOST_LISTED = 100;

bool open_counts(Counts &counts, const std::string &path)
{
    if (path.empty())
        return true;
    counts.path = path;
    counts.fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    return counts.fd != -1;
}

void close_counts(Counts &counts)
{
    if (counts.fd != -1)
        close(counts.fd);
    counts = {};
}

// One write a line: whoever appends at the same time stands before or behind it.
static bool note(Counts &counts, const std::string &line)
{
    if (counts.fd != -1)
        return write(counts.fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    if (counts.lines.size() + line.size() > MOST_IN_MEMORY)
        return false;
    counts.lines += line;
    return true;
}

Answer count_service(Server &server, Client &, const Header &request, std::string_view data)
{
    int64_t number = 0;
    if (!parse_number(text_of(data), 0, INT64_MAX, number))
        return failed(ERR_INVAL);
    std::string text = std::to_string(number);
    return note(server.counts, text + "\n") ? text_answer(request, text) : failed(ERR_SYSTEM);
}

std::string list_counts(const Server &server)
{
    std::ostringstream lines;
    if (server.counts.fd == -1)
        lines << server.counts.lines;
    else
        lines << std::ifstream(server.counts.path).rdbuf();
    std::map<std::string, size_t> times;
    size_t calls = 0;
    std::istringstream input(lines.str());
    for (std::string line; std::getline(input, line); calls++)
        times[line]++;
    std::string text =
        "  calls " + std::to_string(calls) + "\n  numbers " + std::to_string(times.size()) + "\n";
    size_t listed = 0;
    for (const auto &[number, count] : times) {
        if (count > 1 && listed++ < MOST_LISTED)
            text += "  twice " + printable(number) + "\n";
    }
    return text;
}

}  // namespace clhsim
