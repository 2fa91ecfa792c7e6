// Server groups and the processes in them: which of them a request is directed to, and the questions about
// them.
#ifndef CLHSIM_GROUPS_H
#define CLHSIM_GROUPS_H

#include "wire.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace clhsim {

struct Server;
struct Client;
struct Options;

// The groups that offer a service: those of --group, otherwise one. None: there is no such service.
std::vector<int32_t> groups_of(const Options &options, std::string_view service);

// Where a request is directed to: "65537" a group, "server5", "server5.2" one of its processes, "" nowhere.
std::string direction_of(const Header &request);
// What is wrong with it; 0 if nothing is.
int32_t direction_error(const Options &options, const Header &request);
// The name under which the faults of a request are found: "WHICH", or "WHICH@65537" in `room`.
std::string_view fault_name(const Header &request, std::string &room);

void handle_group_list(Server &server, Client &client, const Header &request, std::string_view data);
void handle_process_list(Server &server, Client &client, const Header &request, std::string_view data);
void handle_address(Server &server, Client &client, const Header &request, std::string_view data);
void handle_active_servers(Server &server, Client &client, const Header &request, std::string_view data);

}  // namespace clhsim

#endif
