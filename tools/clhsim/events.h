// Traffic between clients: events, broadcasts, notifications, and who has subscribed to what.
#ifndef CLHSIM_EVENTS_H
#define CLHSIM_EVENTS_H

#include "wire.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace clhsim {

struct Server;
struct Client;

struct Subscription {
    std::string expression;
    std::string second;  // of the second form of the call; it is only shown
};

// A notification whose receiver is to acknowledge it.
struct Notice {
    uint64_t sender = 0;
    uint64_t receiver = 0;
    Header request;
};

void handle_subscribe(Server &server, Client &client, const Header &request, std::string_view data);
void handle_unsubscribe(Server &server, Client &client, const Header &request, std::string_view data);
void handle_post(Server &server, Client &client, const Header &request, std::string_view data);
void handle_broadcast(Server &server, Client &client, const Header &request, std::string_view data);
void handle_notify(Server &server, Client &client, const Header &request, std::string_view data);
void handle_acknowledgement(Server &server, Client &client, const Header &header, std::string_view data);

// The client is gone: nobody will acknowledge what it got, and nobody waits for what it sent.
void abandon_notices(Server &server, Client &client);
int32_t next_notification(Server &server);

// What a client is called in the whole system: its node, its server and its number in one.
int32_t identity_of(const Server &server, const Client &client);

std::string list_subscriptions(const Server &server);

}  // namespace clhsim

#endif
