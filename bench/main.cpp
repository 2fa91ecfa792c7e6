// bench: what the library costs, beside what the machine's sockets cost without it.
#include "scenarios.h"

#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

struct scenario {
    const char *name;
    const char *title;
    void (*run)(const settings &chosen, placement where);
    placement where;
};

static constexpr scenario SCENARIOS[] = {
    {"calls-pinned", "tpcall against the responder, both on one core", calls, placement::one_core},
    {"calls-two-cores", "tpcall against the responder, each on a core of its own", calls,
     placement::two_cores},
    {"calls-unpinned", "tpcall against the responder, unpinned", calls, placement::anywhere},
    {"clhsim-pinned", "tpcall against clhsim, both on one core", calls_to_clhsim, placement::one_core},
    {"clhsim-unpinned", "tpcall against clhsim, unpinned", calls_to_clhsim, placement::anywhere},
    {"turns-pinned", "a conversation's turns, both on one core", turns, placement::one_core},
    {"turns-two-cores", "a conversation's turns, each on a core of its own", turns, placement::two_cores},
    {"transactions-pinned", "transactions of one call, both on one core", transactions, placement::one_core},
    {"transactions-two-cores", "transactions of one call, each on a core of its own", transactions,
     placement::two_cores},
    {"queues-pinned", "tpenq and tpdeq, both on one core", queues, placement::one_core},
    {"queues-two-cores", "tpenq and tpdeq, each on a core of its own", queues, placement::two_cores},
    {"multicasts-pinned", "tpmcallx over 100 groups, both on one core", multicasts, placement::one_core},
    {"multicasts-two-cores", "tpmcallx over 100 groups, each on a core of its own", multicasts,
     placement::two_cores},
    {"enciphered-pinned", "enciphered tpcall, both on one core", enciphered, placement::one_core},
    {"enciphered-two-cores", "enciphered tpcall, each on a core of its own", enciphered,
     placement::two_cores},
    {"rolling-pinned", "a rolling start under load, all on one core", rolling, placement::one_core},
    {"rolling-two-cores", "a rolling start under load, the servers on another core", rolling,
     placement::two_cores},
    {"keys-pinned", "get and put of the key store, both on one core", keys, placement::one_core},
    {"keys-two-cores", "get and put of the key store, each on a core of its own", keys, placement::two_cores},
    {"messages-pinned", "the message service, both on one core", messages, placement::one_core},
    {"messages-two-cores", "the message service, each on a core of its own", messages, placement::two_cores},
    {"threads-pinned", "threads, 4 bytes, all on one core", threads, placement::one_core},
    {"threads-two-cores", "threads, 4 bytes, the responder on another core", threads, placement::two_cores},
    {"threads-unpinned", "threads, 4 bytes, unpinned", threads, placement::anywhere},
    {"window-pinned", "tpacall, a window of 16, both on one core", window, placement::one_core},
    {"window-unpinned", "tpacall, a window of 16, unpinned", window, placement::anywhere},
    {"buffers", "tpalloc and tpfree", buffers, placement::one_core},
    {"frames", "the frame of a call that does nothing", frames, placement::one_core},
    {"fields-calls", "field buffers: single calls", field_calls, placement::one_core},
    {"fields-records", "field buffers: a record of 20 fields", field_records, placement::one_core},
    {"fields-loops", "field buffers: loops over occurrences", field_loops, placement::one_core},
    {"fields-wire", "field buffers: wire form of 64 KiB", field_wire, placement::one_core},
    {"fields-threads", "field buffers: threads with a buffer each", field_threads, placement::anywhere},
    {"properties", "ten properties of a message", properties, placement::one_core},
    {"texts", "an order as plain text", texts, placement::one_core},
};

static void usage(FILE *to)
{
    fputs("usage: bench [--quick] [--only NAME]... [--clhsim PATH]\n\n"
          "  --quick        short rounds, a minute and a half in all; without it nine\n"
          "  --only NAME    scenarios whose name contains NAME; may be given several times\n"
          "  --clhsim PATH  the stand-in server; otherwise the one beside this program, if there is one\n\n"
          "scenarios:\n",
          to);
    for (const scenario &one : SCENARIOS)
        fprintf(to, "  %-22s %s\n", one.name, one.title);
}

static std::string clhsim_beside_this()
{
    char path[4096];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return {};
    std::string beside(path, (size_t)length);
    beside.resize(beside.rfind('/') + 1);
    beside += "clhsim";
    return access(beside.c_str(), X_OK) == 0 ? beside : std::string();
}

static bool is_chosen(const settings &chosen, const scenario &one)
{
    if (one.run == calls_to_clhsim && chosen.clhsim.empty())
        return false;
    if (one.where == placement::two_cores && !chosen.two_cores)
        return false;
    for (const std::string &part : chosen.only)
        if (strstr(one.name, part.c_str()) != nullptr)
            return true;
    return chosen.only.empty();
}

// 0, or 1 for a scenario that failed.
static int run_apart(const settings &chosen, const scenario &one)
{
    print_heading(one.title);
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        one.run(chosen, one.where);
        fflush(stdout);
        _exit(0);
    }
    int status = 1;
    if (child > 0)
        waitpid(child, &status, 0);
    if (status == 0)
        return 0;
    printf("  failed\n");
    return 1;
}

int main(int argc, char **argv)
{
    settings chosen;
    chosen.clhsim = clhsim_beside_this();
    for (int i = 1; i < argc; i++) {
        bool has_value = i + 1 < argc;
        if (strcmp(argv[i], "--quick") == 0) {
            chosen.quick = true;
        } else if (strcmp(argv[i], "--only") == 0 && has_value) {
            chosen.only.push_back(argv[++i]);
        } else if (strcmp(argv[i], "--clhsim") == 0 && has_value) {
            chosen.clhsim = argv[++i];
        } else {
            bool asked = strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0;
            usage(asked ? stdout : stderr);
            return asked ? 0 : 2;
        }
    }
    place_client(placement::anywhere);  // notes the cores before anything is pinned
    chosen.two_cores = core_count() > 1;
    int failures = 0, run = 0;
    for (const scenario &one : SCENARIOS) {
        if (!is_chosen(chosen, one))
            continue;
        run++;
        failures += run_apart(chosen, one);
    }
    if (run == 0)
        give_up("no such scenario; --help names them");
    return failures == 0 ? 0 : 1;
}
