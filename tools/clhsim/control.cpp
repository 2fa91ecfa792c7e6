// The control socket: a line is a command, a table row each. An answer is any number of lines that begin with
// two spaces, and then one that begins with "ok" or "error".
#include "godown.h"
#include "keystore.h"
#include "services.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace clhsim {

constexpr size_t LONGEST_LINE = 64 * 1024;
constexpr size_t LARGEST_BACKLOG = 1024 * 1024;  // of answers that nobody fetches
constexpr int64_t LONGEST_DELAY_MS = 1000LL * 1000 * 1000;
constexpr int64_t HIGHEST_ERROR = 1000;
constexpr int64_t LOWEST_RESULT = -1000;
constexpr int32_t DOWN_WARNING = 217;

using Words = std::vector<std::string_view>;

static std::string wrong(const std::string &what)
{
    return "error " + what + "\n";
}

static std::string counted(size_t count, const char *what)
{
    return "ok " + std::to_string(count) + " " + what + (count == 1 ? "" : "s") + "\n";
}

// The clients that a command means, those that are logged in alone or all; none makes the command fail.
static std::vector<Client *> chosen_clients(Server &server, std::string_view word, bool logged_in)
{
    std::vector<Client *> chosen;
    for (auto [number, client] : server.numbers) {
        bool named = word == "all" || word == std::to_string(number);
        if (named && client->life == Life::OPEN && (client->logged_in || !logged_in))
            chosen.push_back(client);
    }
    return chosen;
}

static std::string for_clients(Server &server, std::string_view word, bool logged_in,
                               const std::function<void(Client &)> &action)
{
    std::vector<Client *> chosen = chosen_clients(server, word, logged_in);
    if (chosen.empty() && word != "all")
        return wrong("no such client");
    for (Client *client : chosen)
        action(*client);
    return counted(chosen.size(), "client");
}

static std::string help_command(Server &, const Words &)
{
    return commands_help() + "ok\n";
}

static std::string clients_command(Server &server, const Words &)
{
    std::string text;
    size_t count = 0;
    for (auto [number, client] : server.numbers) {
        if (client->life != Life::OPEN)
            continue;
        count++;
        text += "  " + std::to_string(number) + " " + client->transport +
                (client->logged_in
                     ? " user \"" + printable(client->user) + "\" name \"" + printable(client->name) + "\""
                     : std::string(" not logged in")) +
                " calls " + std::to_string(client->calls) + " acknowledged " +
                std::to_string(client->acknowledged) + " identity " +
                std::to_string(identity_of(server, *client)) + "\n";
    }
    return text + counted(count, "client");
}

static std::string conversations_command(Server &server, const Words &)
{
    return list_conversations(server) + "ok\n";
}

static std::string transactions_command(Server &server, const Words &)
{
    return list_transactions(server) + "ok\n";
}

static std::string accounts_command(Server &server, const Words &)
{
    return list_accounts(server) + "ok\n";
}

static std::string subscriptions_command(Server &server, const Words &)
{
    return list_subscriptions(server) + "ok\n";
}

static std::string queues_command(Server &server, const Words &)
{
    return list_queues(server) + "ok\n";
}

static std::string messages_command(Server &server, const Words &words)
{
    std::string text;
    return list_queue(server, words[1], text) ? text + "ok\n" : wrong("no such queue");
}

static std::string hold_command(Server &server, const Words &words)
{
    return hold_queue(server, words[1], words[0] == "hold") ? "ok\n" : wrong("no such queue");
}

static std::string keys_command(Server &server, const Words &)
{
    return list_keys(server) + "ok\n";
}

static std::string kmq_command(Server &server, const Words &)
{
    return list_message_service(server) + "ok\n";
}

static std::string closesession_command(Server &server, const Words &words)
{
    size_t count = 0;
    std::vector<Client *> chosen = chosen_clients(server, words[1], true);
    for (Client *client : chosen)
        count += close_sessions(server, *client);
    return chosen.empty() && words[1] != "all" ? wrong("no such client") : counted(count, "session");
}

static std::string counts_command(Server &server, const Words &)
{
    return list_counts(server) + "ok\n";
}

static std::string services_command(Server &, const Words &)
{
    return services_help() + "ok\n";
}

struct StatRow {
    const char *name;
    uint64_t Stats::*count;
};
// clang-format off
static const StatRow STATS[] = {
    {"accepted", &Stats::accepted},
    {"logins", &Stats::logins},
    {"refused_logins", &Stats::refused_logins},
    {"calls", &Stats::calls},
    {"unknown_calls", &Stats::unknown_calls},
    {"messages_in", &Stats::messages_in},
    {"messages_out", &Stats::messages_out},
    {"compressed_in", &Stats::compressed_in},
    {"compressed_out", &Stats::compressed_out},
    {"log_lines", &Stats::log_lines},
    {"log_flushes", &Stats::log_flushes},
    {"acknowledged", &Stats::acknowledged},
    {"dropped", &Stats::dropped},
    {"truncated", &Stats::truncated},
    {"ignored", &Stats::ignored},
    {"broken", &Stats::broken},
    {"conversations", &Stats::conversations},
    {"conversation_faults", &Stats::conversation_faults},
    {"disconnected", &Stats::disconnected},
    {"begun", &Stats::begun},
    {"committed", &Stats::committed},
    {"rolled_back", &Stats::rolled_back},
    {"transaction_faults", &Stats::transaction_faults},
    {"posts", &Stats::posts},
    {"broadcasts", &Stats::broadcasts},
    {"notifications", &Stats::notifications},
    {"delivered", &Stats::delivered},
    {"undelivered", &Stats::undelivered},
    {"enciphered", &Stats::enciphered},
    {"given_back", &Stats::given_back},
    {"messages_sent", &Stats::messages_sent},
    {"messages_delivered", &Stats::messages_delivered},
    {"messages_redelivered", &Stats::messages_redelivered},
    {"messages_expired", &Stats::messages_expired},
    {"sessions_closed", &Stats::sessions_closed},
};
// clang-format on

static std::string stats_command(Server &server, const Words &)
{
    std::string text;
    for (const StatRow &row : STATS)
        text += std::string("  ") + row.name + " " + std::to_string(server.stats.*row.count) + "\n";
    for (const auto &[name, calls] : server.calls_by_service)
        text += "  calls." + std::string(name) + " " + std::to_string(calls) + "\n";
    for (const auto &[name, calls] : server.directed_calls)
        text += "  calls." + name + " " + std::to_string(calls) + "\n";
    text += "  open " + std::to_string(server.numbers.size()) + "\n";
    text += "  waiting " + std::to_string(server.timers.size()) + "\n";
    return text + "ok\n";
}

// The faults share their form: SERVICE, a value for those that have one, and how often.
struct FaultRow {
    const char *command;
    FaultKind kind;
    bool has_value;
    int64_t lowest;
    int64_t highest;
};
// clang-format off
static const FaultRow FAULTS[] = {
    {"delay", FaultKind::DELAY, true, 0, LONGEST_DELAY_MS},
    {"drop", FaultKind::DROP, false, 0, 0},
    {"refuse", FaultKind::REFUSE, true, 1, HIGHEST_ERROR},
    {"giveback", FaultKind::GIVE_BACK, false, 0, 0},
    {"truncate", FaultKind::TRUNCATE, true, 0, INT32_MAX},
    {"result", FaultKind::RESULT, true, LOWEST_RESULT, HIGHEST_ERROR},
};
// clang-format on

static std::string fault_command(Server &server, const Words &words)
{
    const FaultRow *row = std::find_if(std::begin(FAULTS), std::end(FAULTS), [&](const FaultRow &candidate) {
        return words[0] == candidate.command;
    });
    if (row == std::end(FAULTS))
        return wrong("unknown fault");
    Fault fault;
    size_t next = 2;
    if (row->has_value && !parse_number(words[next++], row->lowest, row->highest, fault.value))
        return wrong("number out of range");
    if (words.size() > next && !parse_number(words[next], 1, INT32_MAX, fault.left))
        return wrong("count out of range");
    set_fault(server.faults, words[1], row->kind, fault);
    return "ok\n";
}

static std::string clear_command(Server &server, const Words &words)
{
    clear_faults(server.faults, words[1]);
    return "ok\n";
}

static std::string close_command(Server &server, const Words &words)
{
    return for_clients(server, words[1], false, [&](Client &client) { hang_up(server, client, false); });
}

static std::string reset_command(Server &server, const Words &words)
{
    return for_clients(server, words[1], false, [&](Client &client) { reset_connection(server, client); });
}

static std::string warn_command(Server &server, const Words &words)
{
    return for_clients(server, words[1], true,
                       [&](Client &client) { send_urgent(server, client, DOWN_WARNING); });
}

// Without a client, "godown" or "godown silent", it is the whole server.
static std::string godown_command(Server &server, const Words &words)
{
    bool silent = words.back() == "silent";
    size_t named = words.size() - 1 - silent;
    if (named > 1)
        return wrong("the last word can only be silent");
    if (named == 0) {
        go_down(server, !silent);
        return "ok\n";
    }
    return for_clients(server, words[1], true,
                       [&](Client &client) { take_leave_of(server, client, !silent); });
}

static std::string envelope_command(Server &server, const Words &words)
{
    EnvelopeFault fault = EnvelopeFault::NONE;
    int64_t count = 1;
    if (!server.options.encipher)
        return wrong("the connections aren't enciphered");
    if (!find_envelope_fault(words[2], fault))
        return wrong("the faults are " + envelope_fault_names());
    if (words.size() > 3 && !parse_number(words[3], 1, INT32_MAX, count))
        return wrong("count out of range");
    if (words[1] == "new") {
        server.new_envelope_fault = fault;
        server.new_envelope_faults = count;
        return "ok\n";
    }
    return for_clients(server, words[1], false, [&](Client &client) {
        client.cipher.fault = fault;
        client.cipher.faults_left = count;
    });
}

struct PostKind {
    const char *name;
    int32_t msgtype;
    int32_t flags;
    bool raw;
};
// clang-format off
static const PostKind POST_KINDS[] = {
    {"post", MSG_POST, 0, false},
    {"broadcast", MSG_BROADCAST, 0, false},
    {"notify", MSG_NOTIFY, 0, false},
    {"notifyack", MSG_NOTIFY, FLAG_NOTIFY_ACK, false},
    {"sendtocli", MSG_SENDTOCLI, 0, false},
    {"raw", MSG_SENDTOCLI, 0, true},
};
// clang-format on

static std::string post_command(Server &server, const Words &words)
{
    const PostKind *kind =
        std::find_if(std::begin(POST_KINDS), std::end(POST_KINDS),
                     [&](const PostKind &candidate) { return words[2] == candidate.name; });
    if (kind == std::end(POST_KINDS))
        return wrong("the kinds are post, broadcast, notify, notifyack, sendtocli, raw");
    std::string text(words.size() > 3 ? words[3] : std::string_view());
    if (!kind->raw)
        text.push_back('\0');  // the end of a STRING
    Header header;
    header.msgtype = kind->msgtype;
    header.flags = kind->flags;
    header.buftype = BUF_STRING;
    return for_clients(server, words[1], true, [&](Client &client) {
        if (kind->raw) {
            send_raw(server, client, text);
            return;
        }
        if (kind->flags & FLAG_NOTIFY_ACK)
            header.srcid = next_notification(server);
        send_message(server, client, header, text);
    });
}

static std::string converse_command(Server &server, const Words &words)
{
    int64_t cd = -1;
    if (words[2] != "all" && !parse_number(words[2], 0, INT32_MAX, cd))
        return wrong("number out of range");
    if (!is_conversation_kind(words[3]))
        return wrong("the kinds are " + conversation_kinds());
    size_t count = 0;
    for (Client *client : chosen_clients(server, words[1], true))
        count += converse(server, *client, static_cast<int32_t>(cd), words[3],
                          words.size() > 4 ? words[4] : std::string_view());
    return count == 0 && words[2] != "all" ? wrong("no such conversation") : counted(count, "conversation");
}

static std::string set_command(Server &server, const Words &words)
{
    int64_t selector = 0;
    int64_t value = 0;
    if (!parse_number(words[2], INT32_MIN, INT32_MAX, selector) ||
        !parse_number(words[3], INT32_MIN, INT32_MAX, value))
        return wrong("number out of range");
    Header header;
    header.msgtype = MSG_SET;
    header.cd = static_cast<int32_t>(selector);
    header.value = static_cast<int32_t>(value);
    return for_clients(server, words[1], true,
                       [&](Client &client) { send_message(server, client, header, {}); });
}

static std::string login_command(Server &server, const Words &words)
{
    int64_t error = ERR_SECURITY;
    bool refuse = words[1] == "refuse";
    if (!refuse && words[1] != "accept")
        return wrong("refuse or accept");
    if (words.size() > 2 && !parse_number(words[2], 1, HIGHEST_ERROR, error))
        return wrong("number out of range");
    server.options.login_refusal = refuse ? static_cast<int32_t>(error) : 0;
    return "ok\n";
}

static std::string quit_command(Server &server, const Words &)
{
    server.stopping = true;
    return "ok\n";
}

// With `rest` the last word takes all that is left of the line.
struct CommandRow {
    const char *name;
    const char *arguments;
    const char *help;
    size_t fewest;  // words, with the command's own
    size_t most;
    bool rest;
    std::string (*run)(Server &server, const Words &words);
};

static const CommandRow COMMANDS[] = {
    {"help", "", "this list", 1, 1, false, help_command},
    {"services", "", "the services", 1, 1, false, services_command},
    {"clients", "", "who is connected, by client number", 1, 1, false, clients_command},
    {"stats", "", "what has happened so far, a count a line", 1, 1, false, stats_command},
    {"conversations", "", "who is in conversation with what, by client number and descriptor", 1, 1, false,
     conversations_command},
    {"transactions", "", "the open transactions, by client number", 1, 1, false, transactions_command},
    {"accounts", "", "what is in the accounts of the service DEPOSIT", 1, 1, false, accounts_command},
    {"subscriptions", "", "who has subscribed to what, by client number", 1, 1, false, subscriptions_command},
    {"queues", "", "what the queues hold, by part, and what has become of their messages", 1, 1, false,
     queues_command},
    {"messages", "QUEUE", "the messages of a queue in order, the first 1000", 2, 2, false, messages_command},
    {"hold", "QUEUE", "have no service work on the queue's requests", 2, 2, false, hold_command},
    {"release", "QUEUE", "have them worked on again", 2, 2, false, hold_command},
    {"delay", "SERVICE MS [N]", "send replies that much later", 3, 4, false, fault_command},
    {"drop", "SERVICE [N]", "send no reply", 2, 3, false, fault_command},
    {"refuse", "SERVICE TPERRNO [N]", "answer with this error, without running the service", 3, 4, false,
     fault_command},
    {"giveback", "SERVICE [N]", "give the request back, as a server does that is going down", 2, 3, false,
     fault_command},
    {"truncate", "SERVICE BYTES [N]", "cut the reply off after that many bytes, then close", 3, 4, false,
     fault_command},
    {"result", "SERVICE CODE [N]", "the result of a commit (_tx_commit) or a rollback (_tx_rback)", 3, 4,
     false, fault_command},
    {"clear", "SERVICE", "forget the faults of a service, with * all of them", 2, 2, false, clear_command},
    {"close", "CLIENT|all", "close the connection", 2, 2, false, close_command},
    {"reset", "CLIENT|all", "break the connection off with a reset", 2, 2, false, reset_command},
    {"warn", "CLIENT|all", "send the urgent byte of a server that is going down", 2, 2, false, warn_command},
    {"godown", "[CLIENT|all] [silent]",
     "go down in order, for these clients or, without them, for all and good; silent: without the warning", 1,
     3, false, godown_command},
    {"envelope", "CLIENT|all|new FAULT [N]",
     "spoil the next envelope: cut, change, replay, clear, step; new: of those who connect", 3, 4, false,
     envelope_command},
    {"keys", "", "what is in the key stores, the first 1000 entries", 1, 1, false, keys_command},
    {"kmq", "", "the message service: its sessions, queues and subscriptions with their messages", 1, 1,
     false, kmq_command},
    {"closesession", "CLIENT|all", "close the client's sessions of the message service", 2, 2, false,
     closesession_command},
    {"counts", "", "calls of the service COUNT, different numbers, and those that came twice", 1, 1, false,
     counts_command},
    {"post", "CLIENT|all KIND TEXT",
     "send an unsolicited message: post, broadcast, notify, notifyack, sendtocli, raw", 3, 4, true,
     post_command},
    {"converse", "CLIENT|all CD|all KIND TEXT",
     "speak in a conversation: send, give, end, fail, error, disconnect, refuse, reject", 4, 5, true,
     converse_command},
    {"set", "CLIENT|all CD VALUE", "change a setting: CD 12 block time, 13 transaction time-out", 4, 4, false,
     set_command},
    {"login", "refuse [TPERRNO]|accept", "refuse or accept all logins from now on", 2, 3, false,
     login_command},
    {"quit", "", "end the server", 1, 1, false, quit_command},
};

std::string commands_help()
{
    std::string text;
    for (const CommandRow &row : COMMANDS) {
        std::string name = std::string(row.name) + " " + row.arguments;
        char line[200];
        snprintf(line, sizeof line, "  %-37s %s\n", name.c_str(), row.help);
        text += line;
    }
    return text;
}

std::vector<std::string_view> split_words(std::string_view line, size_t most)
{
    Words words;
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        if (line.empty())
            return words;
        size_t end =
            words.size() + 1 == most ? line.size() : std::min(line.find_first_of(" \t"), line.size());
        words.push_back(line.substr(0, end));
        line.remove_prefix(end);
    }
}

static std::string run_line(Server &server, std::string_view line)
{
    Words words = split_words(line, SIZE_MAX);
    if (words.empty())
        return wrong("empty line; try help");
    for (const CommandRow &row : COMMANDS) {
        if (words[0] != row.name)
            continue;
        if (row.rest)
            words = split_words(line, row.most);
        if (words.size() < row.fewest || words.size() > row.most)
            return wrong(std::string("usage: ") + row.name + " " + row.arguments);
        return row.run(server, words);
    }
    return wrong("unknown command; try help");
}

void add_controller(Server &server, int fd)
{
    auto controller = std::make_unique<Controller>();
    controller->id = ++server.last_id;
    controller->fd = fd;
    watch(server, Source::CONTROLLER, controller->id, fd, EPOLLIN, controller->interest);
    server.controllers[controller->id] = std::move(controller);
}

static void run_lines(Server &server, Controller &controller)
{
    size_t start = 0;
    for (;;) {
        size_t end = controller.input.find('\n', start);
        if (end == std::string::npos)
            break;
        std::string_view line = std::string_view(controller.input).substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        controller.output += run_line(server, line);
        start = end + 1;
    }
    controller.input.erase(0, start);
    if (controller.input.size() > LONGEST_LINE) {
        controller.output += wrong("line too long");
        controller.over = true;
    }
}

static void read_controller(Server &server, Controller &controller)
{
    char bytes[4096];
    ssize_t count = recv(controller.fd, bytes, sizeof bytes, 0);
    if (count > 0) {
        controller.input.append(bytes, static_cast<size_t>(count));
        run_lines(server, controller);
        return;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR))
        controller.over = true;
}

static void write_controller(Controller &controller)
{
    while (!controller.output.empty()) {
        ssize_t count = send(controller.fd, controller.output.data(), controller.output.size(), MSG_NOSIGNAL);
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1) {
            controller.over =
                controller.over || errno != EAGAIN || controller.output.size() > LARGEST_BACKLOG;
            return;
        }
        controller.output.erase(0, static_cast<size_t>(count));
    }
}

void controller_event(Server &server, Controller &controller, uint32_t events)
{
    if (events & (EPOLLIN | EPOLLHUP | EPOLLERR))
        read_controller(server, controller);
    write_controller(controller);
    if (controller.over) {
        close(controller.fd);
        server.controllers.erase(controller.id);
        resume_listening(server);
        return;
    }
    uint32_t wanted = EPOLLIN | (controller.output.empty() ? 0u : static_cast<uint32_t>(EPOLLOUT));
    if (wanted != controller.interest)
        watch(server, Source::CONTROLLER, controller.id, controller.fd, wanted, controller.interest);
}

}  // namespace clhsim
