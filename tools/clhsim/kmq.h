// The message service: sessions, queues and topics with their producers, consumers and browsers.
//
// A message stands in a place: its queue, or a subscription to its topic; each subscription has a copy. It is
// ready there, in the order of priority and age, or held by who has got it and hasn't said that it is done
// with it. What a transacted session does, and what a transaction does in a session that takes part in it, is
// kept as work until the commit. The places are in memory; persistent messages of queues and of durable
// subscriptions are written to the store as well, so that another run finds them.
#ifndef CLHSIM_KMQ_H
#define CLHSIM_KMQ_H

#include "selector.h"
#include "wire.h"

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace clhsim {

struct Server;
struct Client;

// `reader` is empty for a queue, and tells the subscriptions of a topic apart.
struct PlaceKey {
    std::string server = {};
    bool topic = false;
    std::string name = {};
    std::string reader = {};
    auto operator<=>(const PlaceKey &) const = default;
};

// Where a message stands: the highest priority first, then the oldest.
struct Rank {
    int32_t below_top = 0;  // the priority, negative
    uint64_t id = 0;        // 48 bits: the identity
    auto operator<=>(const Rank &) const = default;
};

struct ServiceMessage {
    Rank rank = {};
    int32_t flags = 0;  // how it was sent
    int32_t sent = 0;
    int32_t time_to_live = 0;  // seconds, 0: no end
    int64_t expires = 0;       // milliseconds since 1970, 0: never
    bool redelivered = false;
    bool kept = false;  // in the store, too
    std::shared_ptr<const std::string> data = {};
};

// A consumer that waits for a message.
struct Waiter {
    int32_t session = 0;
    int32_t object = 0;
};

struct Place {
    bool durable = false;
    int32_t reader = 0;              // the consumer of a subscription, 0: none
    std::string selector_text = {};  // of a subscription
    Selector selector = {};
    std::map<Rank, ServiceMessage> ready = {};
    std::map<Rank, ServiceMessage> held = {};
    std::deque<Waiter> waiting = {};
    uint64_t sent = 0;
    uint64_t taken = 0;
    uint64_t redelivered = 0;
    uint64_t expired = 0;
};

// A message on its way to a queue or a topic.
struct SentMessage {
    PlaceKey target = {};
    ServiceMessage message = {};
};

struct Work {
    std::vector<SentMessage> sent = {};
    std::map<std::pair<int32_t, Rank>, PlaceKey> taken = {};  // by consumer
};

// A producer, consumer or browser.
struct ServiceObject {
    int32_t flags = 0;
    PlaceKey place = {};  // of a producer: its queue or topic
    Selector selector = {};
    std::optional<Header> asked = {};  // the request for a message that waits
};

struct ServiceSession {
    int32_t id = 0;
    uint64_t client = 0;
    int32_t flags = 0;
    std::string name = {};
    std::map<int32_t, ServiceObject> objects = {};
    Work work = {};  // transacted: until the commit; otherwise what isn't acknowledged
};

struct MessageService {
    std::map<int32_t, ServiceSession> sessions = {};
    std::map<PlaceKey, Place> places = {};
    int32_t last_session = 0;
    int32_t last_object = 0;
    uint64_t last_id = 0;
    uint64_t reserved_ids = 0;  // up to here
};

// Finds what an earlier run has left.
bool open_message_service(Server &server);

// By type: 500 to 506, 508 to 510.
void handle_session_open(Server &server, Client &client, const Header &request, std::string_view data);
void handle_session_close(Server &server, Client &client, const Header &request, std::string_view data);
void handle_object_open(Server &server, Client &client, const Header &request, std::string_view data);
void handle_object_close(Server &server, Client &client, const Header &request, std::string_view data);
void handle_service_send(Server &server, Client &client, const Header &request, std::string_view data);
void handle_service_get(Server &server, Client &client, const Header &request, std::string_view data);
void handle_service_ack(Server &server, Client &client, const Header &request, std::string_view data);
void handle_session_commit(Server &server, Client &client, const Header &request, std::string_view data);
void handle_session_rollback(Server &server, Client &client, const Header &request, std::string_view data);
void handle_session_recover(Server &server, Client &client, const Header &request, std::string_view data);

// A commit is two steps: first it is written down, which can fail; then others see it.
bool write_work(Server &server, const Work &work);
void show_work(Server &server, Work work);
void undo_work(Server &server, Work work);

// The client is gone.
void abandon_sessions(Server &server, const Client &client);
// Closes the client's sessions from this side; how many.
size_t close_sessions(Server &server, Client &client);

std::string list_message_service(Server &server);

}  // namespace clhsim

#endif
