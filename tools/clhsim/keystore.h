// The shared key store: typed buffers under keys of bytes, a store for each session and one for each node.
#ifndef CLHSIM_KEYSTORE_H
#define CLHSIM_KEYSTORE_H

#include "wire.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace clhsim {

struct Server;
struct Client;

void handle_key_store(Server &server, Client &client, const Header &request, std::string_view data);
// The client is gone, and its session's store with it.
void abandon_keys(Server &server, const Client &client);

// How many nodes there are for the store; the start reply says it.
int32_t node_count(const Server &server);

std::string list_keys(Server &server);

}  // namespace clhsim

#endif
