// The built-in services that answer a call. A service is a row of a table and a function from a request's
// data to an answer; it never waits: an answer that is to come later says so.
#ifndef CLHSIM_SERVICES_H
#define CLHSIM_SERVICES_H

#include "server.h"

namespace clhsim {

struct Answer {
    int32_t error = 0;  // the caller's error number
    int32_t rcode = 0;  // the user return code
    std::string data;
    Clock::duration delay = {};
};

// The kinds of data that a service can do something with.
constexpr uint32_t TAKES_TEXT = 0x1;  // strings, byte arrays, and no data at all
constexpr uint32_t TAKES_STRUCTS = 0x2;
constexpr uint32_t TAKES_FIELDS = 0x4;
constexpr uint32_t TAKES_ALL = TAKES_TEXT | TAKES_STRUCTS | TAKES_FIELDS;

struct Service {
    const char *name;
    const char *help;
    uint32_t takes;
    Answer (*run)(const Options &options, const Header &request, std::string_view data);
    // In its place, for a service that knows its caller.
    Answer (*run_for)(Server &server, Client &client, const Header &request, std::string_view data) = nullptr;
};

Answer failed(int32_t error);
Answer text_answer(const Header &request, std::string_view text);  // with a NUL for who sent one

// transactions.cpp
Answer deposit_service(Server &server, Client &client, const Header &request, std::string_view data);
Answer balance_service(Server &server, Client &client, const Header &request, std::string_view data);

// groups.cpp
Answer which_service(const Options &options, const Header &request, std::string_view data);

// counts.cpp
Answer count_service(Server &server, Client &client, const Header &request, std::string_view data);

const Service *find_service(std::string_view name);
std::vector<std::string> service_names();
// What is wrong with data of this type for the service; 0 if nothing is.
int32_t type_error(const Service &service, int32_t buftype);
// Runs it; field data that isn't in order doesn't reach a service that reads fields.
Answer run_service(const Service &service, Server &server, Client &client, const Header &request,
                   std::string_view data);
// messages.cpp: why a call doesn't reach its service, which may be null; 0 if it does.
int32_t call_error(Server &server, const Service *service, const Header &request);
std::string services_help();  // the conversational ones too

}  // namespace clhsim

#endif
