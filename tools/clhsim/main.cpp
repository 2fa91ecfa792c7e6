// clhsim: a stand-in for the server process that clients connect to. It needs no other process and, but
// for the file of the queues, no disk, so that an application can be developed and tested on one machine.
#include "services.h"

#include "keygen.h"

#include <cerrno>
#include <cstring>
#include <exception>

namespace clhsim {

static int make_keys(const std::string &path)
{
    if (kexcli_make_key_files(path.c_str()) == 0) {
        say("private key in %s, public key in %s%s", path.c_str(), path.c_str(), KEXCLI_PUBLIC_SUFFIX);
        return 0;
    }
    fprintf(stderr, "clhsim: %s: %s\n", path.c_str(), strerror(errno));
    return 1;
}

static int run(int count, char **words)
{
    Server server;
    std::string problem;
    switch (parse_options(count, words, server.options, problem)) {
    case Parsed::HELP:
        printf(
            "%s\nservices:\n%s\n"
            "commands of the control socket, one a line; SERVICE may be * for all, an event's name, or the\n"
            "exchanges _tpstart, _tpend, _tx_commit, _tx_rback, _notify, _tpenq, _tpdeq, _tpqstat, "
            "_tpreissue,\n"
            "_getsvg, _getspr, _getaddr, _getactivesvr, _sq and _negotiate, or SERVICE@GROUP for one group "
            "of a\n"
            "service, _sq@NODE for one node of the key store, _sq@session for the stores of sessions; N says "
            "how\n"
            "often (otherwise until it is cleared):\n%s\n"
            "An answer is any number of lines that begin with two spaces, and then one that begins\n"
            "with ok or error.\n",
            help_text().c_str(), services_help().c_str(), commands_help().c_str());
        return 0;
    case Parsed::WRONG:
        fprintf(stderr, "clhsim: %s\ntry clhsim --help\n", problem.c_str());
        return 2;
    case Parsed::RUN:
        break;
    }
    if (!server.options.keygen_file.empty())
        return make_keys(server.options.keygen_file);
    bool opened = open_server(server, problem);
    if (opened)
        run_server(server);
    else
        fprintf(stderr, "clhsim: %s\n", problem.c_str());
    close_server(server);
    return opened ? 0 : 1;
}

}  // namespace clhsim

int main(int count, char **words)
{
    try {
        return clhsim::run(count, words);
    } catch (const std::exception &error) {
        fprintf(stderr, "clhsim: %s\n", error.what());
        return 1;
    }
}
