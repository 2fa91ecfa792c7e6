// The built-in services. A service is a row of a table and a function from a request's data to an answer; it
// never waits: an answer that is to come later says so.
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

struct Service {
    const char *name;
    const char *help;
    bool text_only;  // it can't do anything with structures and field buffers
    Answer (*run)(const Options &options, int32_t buftype, std::string_view data);
};

const Service *find_service(std::string_view name);
std::string services_help();

}  // namespace clhsim

#endif
