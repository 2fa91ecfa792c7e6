// Going down in order: clients are warned, what hasn't begun is given back to them, what has begun is
// answered, and then their connections end.
#ifndef CLHSIM_GODOWN_H
#define CLHSIM_GODOWN_H

#include "wire.h"

#include <string_view>

namespace clhsim {

struct Server;
struct Client;

// From now on the client is on its way out; with `warned` it is told so.
void take_leave_of(Server &server, Client &client, bool warned);
// All of them, and then the server itself ends. Nobody new comes in.
void go_down(Server &server, bool warned);

// Whether a request of a client on its way out has been dealt with: given back, or refused.
bool handled_on_leave(Server &server, Client &client, const Header &request, std::string_view data);
// Closes the connection of a client on its way out if it is owed nothing; otherwise it is looked at again
// when something has changed.
void leave_if_done(Server &server, Client &client);
// Ends the server that is going down when the last client has gone.
void end_if_alone(Server &server);

}  // namespace clhsim

#endif
