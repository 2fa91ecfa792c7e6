#include "options.h"

#include "services.h"

#include <charconv>
#include <cstdio>

namespace clhsim {

bool parse_number(std::string_view text, int64_t low, int64_t high, int64_t &number)
{
    int64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < low || value > high)
        return false;
    number = value;
    return true;
}

static std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> pieces;
    for (size_t start = 0; start <= text.size();) {
        size_t end = std::min(text.find(separator, start), text.size());
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

// A plain number goes straight into its field; what needs more has a function. Both null: a switch of its
// own.
struct OptionRow {
    const char *name;
    const char *argument;  // null: none
    const char *help;
    int32_t Options::*number;
    int32_t low;
    int32_t high;
    std::string Options::*text;
    const char *(*take)(Options &options, std::string_view value);  // null, or what is wrong
};

constexpr int64_t HIGHEST_GROUP = 0x7ffffff;  // the node has the bits from 16 to 26
constexpr size_t NAME_SIZE = 16;              // of a node or queue in the start reply

static const char *take_port(Options &options, std::string_view value)
{
    int64_t port = 0;
    if (!parse_number(value, 0, 65535, port))
        return "no port number";
    options.port = static_cast<int>(port);
    return nullptr;
}

static const char *take_ready_fd(Options &options, std::string_view value)
{
    int64_t fd = 0;
    if (!parse_number(value, 0, 1 << 20, fd))
        return "no descriptor";
    options.ready_fd = static_cast<int>(fd);
    return nullptr;
}

static const char *take_nodes(Options &options, std::string_view value)
{
    options.nodes.clear();
    if (value.empty())
        return nullptr;
    for (std::string_view piece : split(value, ',')) {
        std::vector<std::string_view> names = split(piece, ':');
        if (names.size() > 2 || names[0].empty() || names[0].size() > NAME_SIZE ||
            names.back().size() > NAME_SIZE)
            return "not NAME[:SECOND],... with names of at most 16 characters";
        options.nodes.push_back({std::string(names[0]), std::string(names.back())});
    }
    return nullptr;
}

static const char *take_queues(Options &options, std::string_view value)
{
    options.queues.clear();
    if (value.empty())
        return nullptr;
    for (std::string_view name : split(value, ',')) {
        if (name.empty() || name.size() > NAME_SIZE)
            return "not NAME,... with names of at most 16 characters";
        options.queues.emplace_back(name);
    }
    return nullptr;
}

static const char *take_message_servers(Options &options, std::string_view value)
{
    constexpr size_t LONGEST = 14;
    options.message_servers.clear();
    for (std::string_view name : split(value, ',')) {
        if (name.empty() || name.size() > LONGEST)
            return "not NAME,... with names of at most 14 characters";
        options.message_servers.emplace_back(name);
    }
    return nullptr;
}

static const char *take_group(Options &options, std::string_view value)
{
    size_t equals = value.find('=');
    if (equals == value.npos)
        return "not SERVICE=GROUP,...";
    GroupList list = {std::string(value.substr(0, equals)), {}};
    if (!find_service(list.service))
        return "no such service";
    for (std::string_view piece : split(value.substr(equals + 1), ',')) {
        int64_t number = 0;
        if (!parse_number(piece, 0, HIGHEST_GROUP, number))
            return "a group is a number of at most 27 bits";
        list.numbers.push_back(static_cast<int32_t>(number));
    }
    std::erase_if(options.groups, [&](const GroupList &old) { return old.service == list.service; });
    options.groups.push_back(std::move(list));
    return nullptr;
}

static const char *take_login(Options &options, std::string_view value)
{
    std::vector<std::string_view> pieces = split(value, ':');
    if (pieces.size() > 3 || pieces[0].empty())
        return "not USER[:CREDENTIAL[:SECOND]]";
    pieces.resize(3);
    options.logins.push_back({std::string(pieces[0]), std::string(pieces[1]), std::string(pieces[2])});
    return nullptr;
}

static const char *take_refusal(Options &options, std::string_view)
{
    options.login_refusal = 25;
    return nullptr;
}

static const char *take_compress(Options &options, std::string_view value)
{
    int64_t from = 0;
    if (!parse_number(value, -1, INT32_MAX, from))
        return "no size";
    options.compress_from = static_cast<int32_t>(from);
    options.compress_own = true;
    return nullptr;
}

static const char *take_no_payload(Options &options, std::string_view)
{
    options.payload = false;
    return nullptr;
}

static const char *take_encipher(Options &options, std::string_view)
{
    options.encipher = true;
    return nullptr;
}

static const char *take_verbose(Options &options, std::string_view)
{
    options.verbose = true;
    return nullptr;
}

static OptionRow number_row(const char *name, const char *help, int32_t Options::*field, int32_t low,
                            int32_t high)
{
    return {name, "N", help, field, low, high, nullptr, nullptr};
}

static OptionRow text_row(const char *name, const char *argument, const char *help,
                          std::string Options::*field)
{
    return {name, argument, help, nullptr, 0, 0, field, nullptr};
}

static OptionRow taken_row(const char *name, const char *argument, const char *help,
                           const char *(*take)(Options &, std::string_view))
{
    return {name, argument, help, nullptr, 0, 0, nullptr, take};
}

static const OptionRow ROWS[] = {
    taken_row("--port", "PORT", "listen on TCP; 0 takes a free port (what it does without any address)",
              take_port),
    text_row("--bind", "ADDRESS", "IPv4 address for --port, 127.0.0.1", &Options::bind_address),
    text_row("--local", "DIR", "listen on the local socket DIR/cllrcad; DIR is made if it is missing",
             &Options::local_directory),
    text_row("--control", "PATH", "listen for commands on this local socket", &Options::control_path),
    taken_row("--ready-fd", "FD",
              "once ready, write the TCP port (0 without TCP) and a newline there, close it", take_ready_fd),

    number_row("--acall-size", "start reply: rows for asynchronous calls, 256", &Options::acall_size, 0,
               1 << 20),
    number_row("--conv-size", "start reply: rows for conversations, 64", &Options::conv_size, 0, 1 << 20),
    number_row("--block-time", "start reply: default time-out of a call in seconds, 60; 0 for none",
               &Options::block_time, 0, INT32_MAX),
    number_row("--tx-timeout", "start reply: default time-out of a transaction in seconds, 60",
               &Options::tx_timeout, 0, INT32_MAX),
    number_row("--engine-version", "start reply: engine version, 1", &Options::engine_version, 0, INT32_MAX),
    number_row("--clh-number", "start reply: number of this CLH, 0", &Options::clh_number, 0, 255),
    number_row("--node-number", "start reply: number of this node, 0", &Options::node_number, 0, 0x3fff),
    number_row("--first-client", "the first client's number, 1; it is counted up from there",
               &Options::first_client, 0, 8191),
    taken_row("--nodes", "NAME[:SECOND],...", "start reply: the nodes, NODE1", take_nodes),
    taken_row("--queues", "NAME,...", "start reply: the queues, none", take_queues),
    number_row("--threshold", "start reply: data of this size or more is to be compressed, -1 for never",
               &Options::threshold, -1, INT32_MAX),
    text_row("--server-name", "NAME", "start reply: service that clients direct by node",
             &Options::server_name),
    taken_row("--no-payload", nullptr, "start reply: header only, without nodes, queues and threshold",
              take_no_payload),

    taken_row("--refuse-login", nullptr,
              "refuse every login (TPESECURITY) until the command \"login accept\"", take_refusal),
    taken_row("--user", "USER[:CRED1[:CRED2]]", "let in only such logins; may be given several times",
              take_login),

    text_row(
        "--store-file", "FILE",
        "keep queues, key store and messages in this SQLite file, to outlive the server; otherwise in memory",
        &Options::queue_file),
    text_row("--queue-file", "FILE", "the same", &Options::queue_file),
    number_row("--queue-limit", "most messages of a queue or subscription, 1000000", &Options::queue_limit, 0,
               INT32_MAX),
    taken_row("--message-servers", "NAME,...", "the message servers that sessions can name, otherwise any",
              take_message_servers),
    taken_row("--group", "SERVICE=GROUP,...",
              "the server groups of a service, one of the node's own; may be given several times",
              take_group),

    text_row("--count-file", "FILE",
             "append the numbers of the service COUNT to FILE, which several servers can share",
             &Options::count_file),

    taken_row(
        "--encipher", nullptr,
        "every connection has to negotiate keys; the private key that KEXCLI_OWN_KEY names proves who it is",
        take_encipher),
    text_row("--keygen", "FILE",
             "make a private key in FILE and its public half in FILE.pub, and end; neither may be there",
             &Options::keygen_file),
    number_row("--leave-time", "going down: how long a client has to be quiet before it is closed, ms, 1000",
               &Options::leave_time, 0, 1000 * 1000),
    taken_row("--compress", "N",
              "compress messages to clients from this size of data on, -1 for never; as --threshold",
              take_compress),
    number_row("--max-data", "longest data of a message, 67108864; a client that sends more is hung up on",
               &Options::max_data, 1024, 1 << 30),
    text_row("--log-file", "FILE",
             "append the clients' user log to FILE; otherwise it goes to standard output",
             &Options::log_file),
    taken_row("--verbose", nullptr, "tell every message on standard error", take_verbose),
};

static const OptionRow *find_option(std::string_view name)
{
    for (const OptionRow &row : ROWS) {
        if (name == row.name)
            return &row;
    }
    return nullptr;
}

static const char *apply(const OptionRow &row, Options &options, std::string_view value)
{
    if (row.take)
        return row.take(options, value);
    if (row.text) {
        options.*row.text = value;
        return value.empty() ? "empty" : nullptr;
    }
    int64_t number = 0;
    if (!parse_number(value, row.low, row.high, number))
        return "no number, or out of range";
    options.*row.number = static_cast<int32_t>(number);
    return nullptr;
}

Parsed parse_options(int count, char **words, Options &options, std::string &problem)
{
    for (int i = 1; i < count; i++) {
        std::string_view word = words[i];
        if (word == "--help" || word == "-h")
            return Parsed::HELP;
        size_t equals = word.find('=');
        const OptionRow *row = find_option(word.substr(0, equals));
        if (!row || (equals != word.npos && !row->argument)) {
            problem = "unknown option " + std::string(word);
            return Parsed::WRONG;
        }
        std::string_view value;
        if (row->argument) {
            if (equals != word.npos)
                value = word.substr(equals + 1);
            else if (++i < count)
                value = words[i];
            else {
                problem = std::string(row->name) + " needs " + row->argument;
                return Parsed::WRONG;
            }
        }
        if (const char *what = apply(*row, options, value)) {
            problem = std::string(row->name) + ": " + what;
            return Parsed::WRONG;
        }
    }
    if (options.port < 0 && options.local_directory.empty())
        options.port = 0;
    if (!options.compress_own)
        options.compress_from = options.threshold;
    return Parsed::RUN;
}

std::string help_text()
{
    std::string text =
        "clhsim: a stand-in for the client-handling server process, for development and tests\n\n"
        "usage: clhsim [options]\n\n";
    for (const OptionRow &row : ROWS) {
        std::string name = row.name;
        if (row.argument)
            name += std::string(" ") + row.argument;
        char line[256];
        snprintf(line, sizeof line, "  %-28s %s\n", name.c_str(), row.help);
        text += line;
    }
    return text;
}

}  // namespace clhsim
