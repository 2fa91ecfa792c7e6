// The command line. Each option is a row of one table, from which both the parser and --help come.
#ifndef CLHSIM_OPTIONS_H
#define CLHSIM_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace clhsim {

struct NodeName {
    std::string name;
    std::string second;
};

// A login that is let in. An empty credential isn't compared.
struct Login {
    std::string user;
    std::string cred1;
    std::string cred2;
};

// The server groups that offer a service.
struct GroupList {
    std::string service;
    std::vector<int32_t> numbers;
};

struct Options {
    // Where it listens.
    std::string bind_address = "127.0.0.1";
    int port = -1;  // -1: no TCP, 0: a free one
    std::string local_directory;
    std::string control_path;
    int ready_fd = -1;

    // What the start reply says.
    int32_t acall_size = 256;
    int32_t conv_size = 64;
    int32_t block_time = 60;  // seconds
    int32_t tx_timeout = 60;  // seconds
    int32_t engine_version = 1;
    int32_t clh_number = 0;
    int32_t node_number = 0;
    int32_t first_client = 1;
    bool payload = true;
    std::vector<NodeName> nodes = {{"NODE1", "NODE1"}};
    std::vector<std::string> queues;
    int32_t threshold = -1;  // the client's messages
    std::string server_name;

    // Who may log in.
    int32_t login_refusal = 0;  // the error number, 0 for none
    std::vector<Login> logins;  // empty: everybody

    // What it offers.
    std::string queue_file;  // empty: the queues are kept in memory
    int32_t queue_limit = 1000 * 1000;
    std::vector<std::string> message_servers;  // names of the message service; empty: any
    std::vector<GroupList> groups;
    std::string count_file;  // empty: the service COUNT keeps its numbers in memory

    // The server's own ways.
    bool encipher = false;      // every connection begins with a negotiation
    int32_t leave_time = 1000;  // milliseconds without a request, before a client on its way out is closed
    std::string keygen_file;    // make a pair of keys there, and do nothing else
    bool compress_own = false;  // compress_from was given, otherwise it follows the threshold
    int32_t compress_from = -1;
    int32_t max_data = 64 * 1024 * 1024;
    std::string log_file;
    bool verbose = false;
};

enum class Parsed { RUN, HELP, WRONG };

// On WRONG `problem` says why.
Parsed parse_options(int count, char **words, Options &options, std::string &problem);
std::string help_text();

// The whole of `text` as a number within the limits.
bool parse_number(std::string_view text, int64_t low, int64_t high, int64_t &number);

}  // namespace clhsim

#endif
