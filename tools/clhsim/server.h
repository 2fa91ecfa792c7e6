// The server's state and what every part of it uses: clients, messages to them, timers.
//
// One thread, one loop (loop.cpp). A round takes the events and the timers that are due; what they leave to
// be sent is written at the round's end, so that the answers to several requests of one read leave in one
// write. A client record is freed only at the end of a round; within it, `life` tells that it is over.
#ifndef CLHSIM_SERVER_H
#define CLHSIM_SERVER_H

#include "conversations.h"
#include "envelope.h"
#include "events.h"
#include "counts.h"
#include "faults.h"
#include "kmq.h"
#include "options.h"
#include "queues.h"
#include "transactions.h"
#include "wire.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace clhsim {

using Clock = std::chrono::steady_clock;

enum class Life {
    OPEN,
    FLUSHING,  // nothing more is taken from it; the output goes out, then it is shut down
    DRAINING,  // shut down; what the peer still sends is thrown away, so that it gets all of the output
    DEAD,      // freed at the end of the round
};

struct Client {
    uint64_t id = 0;  // never used twice
    int fd = -1;
    Life life = Life::OPEN;
    uint32_t interest = 0;  // the events that epoll watches for
    bool settling = false;  // stands in Server::unsettled
    bool paused = false;    // `input` may hold whole frames, left there because too much is on its way out
    std::string input;
    std::string output;
    size_t written = 0;  // bytes of `output` that are gone
    size_t held = 0;     // bytes that wait in timers
    size_t timers = 0;

    int32_t number = 0;  // in the start reply, and in the commands of the control socket
    const char *transport = "";
    bool logged_in = false;
    std::string user;
    std::string name;
    uint64_t calls = 0;
    uint64_t acknowledged = 0;  // notifications

    Cipher cipher;
    bool leaving = false;            // warned, or the server goes down: what it asks for is given back
    Clock::time_point last_request;  // of a leaving client

    bool gone = false;  // what others kept for it is cleared away
    std::map<int32_t, Conversation> conversations;
    Transaction transaction;
    std::vector<Subscription> subscriptions;
};

// Somebody on the control socket.
struct Controller {
    uint64_t id = 0;
    int fd = -1;
    bool over = false;
    std::string input;
    std::string output;
    uint32_t interest = 0;
};

struct Timer {
    uint64_t client = 0;
    size_t held = 0;
    std::function<void(Client &)> action;
};

struct Stats {
    uint64_t accepted = 0;
    uint64_t logins = 0;
    uint64_t refused_logins = 0;
    uint64_t calls = 0;
    uint64_t unknown_calls = 0;
    uint64_t messages_in = 0;
    uint64_t messages_out = 0;
    uint64_t compressed_in = 0;
    uint64_t compressed_out = 0;
    uint64_t log_lines = 0;
    uint64_t log_flushes = 0;
    uint64_t acknowledged = 0;
    uint64_t dropped = 0;
    uint64_t truncated = 0;
    uint64_t ignored = 0;
    uint64_t broken = 0;
    uint64_t conversations = 0;
    uint64_t conversation_faults = 0;
    uint64_t disconnected = 0;
    uint64_t begun = 0;
    uint64_t committed = 0;
    uint64_t rolled_back = 0;
    uint64_t transaction_faults = 0;
    uint64_t posts = 0;
    uint64_t broadcasts = 0;
    uint64_t notifications = 0;
    uint64_t delivered = 0;
    uint64_t undelivered = 0;
    uint64_t enciphered = 0;  // connections
    uint64_t given_back = 0;
    uint64_t messages_sent = 0;  // of the message service
    uint64_t messages_delivered = 0;
    uint64_t messages_redelivered = 0;
    uint64_t messages_expired = 0;
    uint64_t sessions_closed = 0;  // from this side
};

struct Server {
    Options options;
    FaultTable faults;
    Stats stats;
    std::unordered_map<std::string_view, uint64_t> calls_by_service;
    std::map<std::string, uint64_t> directed_calls;  // by service and group or process

    int epoll_fd = -1;
    int signal_fd = -1;
    int tcp_fd = -1;
    int local_fd = -1;
    int control_fd = -1;
    int tcp_port = 0;
    bool listening_paused = false;  // out of descriptors
    std::string local_path;         // what was made and is to be removed
    std::string control_path;
    FILE *log = nullptr;  // null: standard output

    uint64_t last_id = 0;
    int32_t next_number = 0;
    int32_t last_notification = 0;
    int32_t last_conversation = 0;
    uint64_t last_transaction = 0;
    std::map<int32_t, Notice> notices;  // notifications that are to be acknowledged
    Accounts accounts;
    Queues queues;
    MessageService service;
    Client nobody;  // whose timers are the server's own
    std::unordered_map<uint64_t, std::unique_ptr<Client>> clients;
    std::map<int32_t, Client *> numbers;
    std::unordered_map<uint64_t, std::unique_ptr<Controller>> controllers;
    std::multimap<Clock::time_point, Timer> timers;
    std::vector<uint64_t> unsettled;
    std::string plain;                                       // room for uncompressed messages
    EnvelopeFault new_envelope_fault = EnvelopeFault::NONE;  // for those who connect from now on
    int64_t new_envelope_faults = 0;
    Counts counts;
    bool going_down = false;  // nobody new comes in; the last client's end is the server's
    bool stopping = false;
};

// loop.cpp
enum class Source : uint8_t { SIGNALS, TCP_LISTENER, LOCAL_LISTENER, CONTROL_LISTENER, CLIENT, CONTROLLER };
bool open_server(Server &server, std::string &problem);
void run_server(Server &server);
void close_server(Server &server);
void watch(Server &server, Source source, uint64_t id, int fd, uint32_t events, uint32_t &interest);
void resume_listening(Server &server);
void close_listeners(Server &server);                                     // those for clients
void say(const char *format, ...) __attribute__((format(printf, 1, 2)));  // a line on standard output

// client.cpp
void add_client(Server &server, int fd, bool local);
void client_event(Server &server, Client &client, uint32_t events);
void settle(Server &server);
bool congested(const Client &client);  // too much waits for it
// The functions from here on may be called for any client that isn't freed; on one that isn't open they do
// nothing.
void send_message(Server &server, Client &client, const Header &header, std::string_view data);
void send_raw(Server &server, Client &client, std::string_view data);
void send_bytes(Server &server, Client &client, std::string_view bytes);  // as they are
void send_urgent(Server &server, Client &client, unsigned char byte);
// Closes the connection in order, after the output or without it.
void hang_up(Server &server, Client &client, bool after_output);
// Breaks it off: the peer gets a reset.
void reset_connection(Server &server, Client &client);
// Runs `action` later if the client is still open then. `held` is what the action keeps, in bytes: a client
// that has too much waiting isn't read from until it is less.
void after(Server &server, Client &client, Clock::duration delay, size_t held,
           std::function<void(Client &)> action);

// messages.cpp
void handle_message(Server &server, Client &client, const Frame &frame);
struct Reply {
    Header header = {};
    std::string data = {};
    Clock::duration delay = {};
    bool last = false;  // the connection ends behind it
};
// Whether a request is handed back, as a server does that is going down. It hasn't happened then, and the
// reply is sent.
// `name` is that of the exchange, by default the service's.
bool gives_back(Server &server, Client &client, const Header &request, std::string_view data,
                std::string_view name = {});
// A request as it goes back: as it came, but for the type and the mark. No error number is put into it, so
// that it can be sent again as it was.
Header given_back(const Header &request);
// A reply without data.
void send_refusal(Server &server, Client &client, const Header &request, int32_t error);
// The data without the trailer that the transport may have put behind it.
std::string_view without_trailer(const Header &header, std::string_view data);
// Sends a reply subject to the faults set for `name`.
void send_reply(Server &server, Client &client, Reply reply, std::string_view name);
// The header of the reply to a request: the request's own with the type, the error and the user code of the
// answer.
Header reply_header(const Header &request, int32_t error, int32_t rcode);

// login.cpp
void handle_start(Server &server, Client &client, const Header &request, std::string_view data);

// control.cpp
void add_controller(Server &server, int fd);
void controller_event(Server &server, Controller &controller, uint32_t events);
std::string commands_help();
// The words of a line; the last of `most` takes all that is left.
std::vector<std::string_view> split_words(std::string_view line, size_t most);

// Text from a client as it may be shown: control characters become \xNN.
std::string printable(std::string_view text);

}  // namespace clhsim

#endif
