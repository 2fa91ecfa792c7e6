// Reliable queues: messages that are kept until somebody takes them, requests that are kept until their
// service has worked on them, and what became of these.
#ifndef CLHSIM_QUEUES_H
#define CLHSIM_QUEUES_H

#include "store.h"
#include "wire.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace clhsim {

struct Server;
struct Client;

struct Queue {
    std::string name;
    bool held = false;           // no service works on it
    bool news = false;           // something has come that others can take
    bool stirring = false;       // somebody will look at it in this round or the next
    int64_t rows = 0;            // all that it keeps
    std::set<uint64_t> waiting;  // ids of clients that found nothing and haven't been told of news since
    uint64_t enqueued = 0;
    uint64_t dequeued = 0;
    uint64_t processed = 0;
    uint64_t failed = 0;
    uint64_t reissued = 0;
};

// The number of a queue is its place here.
struct Queues {
    Store store;
    std::vector<Queue> rows;
};

bool open_queues(Server &server, std::string &problem);

void handle_enqueue(Server &server, Client &client, const Header &request, std::string_view data);
void handle_dequeue(Server &server, Client &client, const Header &request, std::string_view data);
void handle_queue_status(Server &server, Client &client, const Header &request, std::string_view data);
void handle_reissue(Server &server, Client &client, const Header &request, std::string_view data);

// The client's transaction ends. A commit that can't be written down is none.
bool commit_messages(Server &server, Client &client);
void undo_messages(Server &server, Client &client);
// The client is gone.
void abandon_queues(Server &server, const Client &client);

// The commands. False: no queue of that name.
std::string list_queues(Server &server);
bool list_queue(Server &server, std::string_view name, std::string &text);
bool hold_queue(Server &server, std::string_view name, bool held);

}  // namespace clhsim

#endif
