// Recorded conversations: reading the files and following them.
#include <stdlib.h>

#include <fstream>
#include <map>
#include <sstream>

#include "support/gtest.h"
#include "support/peer.h"

namespace {

struct piece {
    size_t offset;
    std::string bytes;     // what stands there; with a variable, filled in when it is bound
    std::string variable;  // name of the variable, or empty
    std::string field;
};

struct message {
    bool from_client;
    std::string name;
    std::vector<piece> pieces;

    size_t size() const
    {
        return pieces.empty()
                   ? 0
                   : pieces.back().offset + (pieces.back().variable.empty() ? pieces.back().bytes.size() : 4);
    }
};

std::string trimmed(const std::string &text)
{
    size_t first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

// "0a 1b", "text", 00*16 in any order.
std::string parse_bytes(std::string text)
{
    std::string bytes;
    while (!(text = trimmed(text)).empty()) {
        if (text[0] == '"') {
            size_t end = text.find('"', 1);
            bytes += text.substr(1, end - 1);
            text = text.substr(end + 1);
            continue;
        }
        size_t end = text.find(' '), star = text.find('*');
        std::string token = text.substr(0, end);
        size_t times = star < end ? strtoul(text.c_str() + star + 1, nullptr, 10) : 1;
        bytes.append(times, (char)strtoul(token.substr(0, 2).c_str(), nullptr, 16));
        text = end == std::string::npos ? "" : text.substr(end);
    }
    return bytes;
}

std::vector<message> load(const std::string &path)
{
    std::vector<message> all;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        line = trimmed(line);
        if (line.empty() || line[0] == '#')
            continue;
        bool client = line.rfind("client ", 0) == 0, server = line.rfind("server ", 0) == 0;
        if (client || server) {
            all.push_back({client, line.substr(7), {}});
            continue;
        }
        size_t bytes_at = line.find(' '), semicolon = line.find(';');
        if (all.empty() || bytes_at == std::string::npos || semicolon == std::string::npos)
            continue;
        piece one;
        one.offset = strtoul(line.c_str(), nullptr, 10);
        one.field = trimmed(line.substr(semicolon + 1));
        std::string bytes = trimmed(line.substr(bytes_at, semicolon - bytes_at));
        if (bytes[0] == '$')
            one.variable = bytes.substr(1);
        else
            one.bytes = parse_bytes(bytes);
        EXPECT_EQ(one.offset, all.back().size()) << path << ": a gap before " << line;
        all.back().pieces.push_back(one);
    }
    return all;
}

std::string hex(const std::string &bytes)
{
    std::string text;
    for (unsigned char c : bytes) {
        char one[8];
        snprintf(one, sizeof one, "%02x ", c);
        text += one;
    }
    return text;
}

}

void Peer::follow(const std::string &path, where place)
{
    std::vector<message> conversation = load(path);
    std::map<std::string, std::string> bound;
    if (conversation.empty()) {
        ADD_FAILURE_AT(place.file, place.line) << "no conversation in " << path;
        return;
    }
    if (!accept(place))
        return;
    for (const message &one : conversation) {
        std::string got = one.from_client ? read_bytes(one.size()) : "";
        std::string answer;
        for (const piece &part : one.pieces) {
            std::string awaited = part.variable.empty() ? part.bytes : bound[part.variable];
            if (!one.from_client) {
                answer += awaited;
                continue;
            }
            std::string there =
                got.size() > part.offset ? got.substr(part.offset, awaited.empty() ? 4 : awaited.size()) : "";
            if (!part.variable.empty() && awaited.empty())
                bound[part.variable] = there;
            else if (there != awaited)
                ADD_FAILURE_AT(place.file, place.line)
                    << one.name << ", offset " << part.offset << ", " << part.field << "\n  came    "
                    << hex(there) << "\n  awaited " << hex(awaited);
        }
        if (!one.from_client)
            send_raw(answer);
        else if (got.size() != one.size())
            return fail("the client's " + one.name + " is short", place);
    }
    expect_end(place);
}
