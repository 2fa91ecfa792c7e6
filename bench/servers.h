// The other ends: the leanest blocking responder, which is the measure of the library, and clhsim.
//
// The responder is a process of its own, with a thread that does nothing but recv and send for each connection.
// On one port it answers bare bytes: a client tells the size of a message once, then each message comes back as
// it is. On the other it speaks the protocol with a codec of its own: it lets every start in, turns each call
// into its reply in place, commits every transaction, and sends each message of a conversation back, with the
// right to send. So the bytes there and back are as many as those of a bare message of that size. Its one queue
// accepts all that comes, with a service's answer right behind where one is due, and always has a message of as
// many bytes as the name of the dequeue's service says; each service has a hundred groups. Its key store takes
// whatever is put, and under each key keeps as many bytes as the key says. The message service sends back what is
// sent to it, and always has a message whose body is as long as the session's name says. A call of WARN is answered
// and followed by the warning that the server goes down. A third port speaks the protocol enciphered.
#ifndef VORN_BENCH_SERVERS_H
#define VORN_BENCH_SERVERS_H

#include "harness.h"

#include <sys/types.h>

constexpr size_t MESSAGE_HEAD = 136;  // in front of a message's data
constexpr char QUEUE_NAME[] = "QUEUE";
constexpr char WARN_NAME[] = "WARN";
constexpr uint32_t GROUP_COUNT = 100;

struct server {
    pid_t pid = -1;
    int protocol_port = 0;
    int bare_port = 0;    // 0: has none
    int cipher_port = 0;  // the same
};

// Both pin themselves as the caller is pinned. A session has `outstanding` call descriptors.
server start_responder(uint32_t outstanding = 256);
server start_clhsim(const settings &chosen);
void stop_server(server *peer);

// Lets the library find the server.
void point_library_at(const server &peer);
// The same for enciphered sessions. The library's switch is the process's: no plain session works from then on.
void point_enciphered_at(const server &peer);
// Where the sessions move to when the server of the others goes down.
void point_backup_at(const server &peer);

// A bare connection of messages of `size` bytes, each with `behind` bytes behind it that nothing answers.
int connect_bare(const server &peer, uint32_t size, uint32_t behind = 0);
// Connects to the protocol's port, sends a start message and takes its reply, without the library.
void log_in_bare(const server &peer);
void send_all(int fd, const char *bytes, size_t size);
void receive_all(int fd, char *bytes, size_t size);

#endif
