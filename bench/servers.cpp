#include "servers.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// Where the responder looks into a message, and what it puts there.
enum header_offset : size_t {
    AT_BUFTYPE = 8,
    AT_BUFSIZE = 12,
    AT_MSGTYPE = 16,
    AT_RCODE = 20,
    AT_PRIO = 32,
    AT_VALUE = 36,
    AT_XID = 40,
    AT_SVCNAME = 68,
    AT_DATALEN = 100,
    AT_FLAGS = 104,
    AT_CD = 108,
    AT_SESSID = 112
};
constexpr uint32_t START = 1, CONNECT = 5, SEND = 6, DISCON = 8, ENQUEUE = 17, DEQUEUE = 18, INIT = 21,
                   STORED = 25, GROUPS = 46, REPLY = 1000;
constexpr uint32_t CARRAY = 4;                         // kind of data
constexpr uint32_t ENQUEUE_UNANSWERED = 0x4 | 0x4000;  // no service's answer follows the acceptance
constexpr uint32_t HANDS_OVER = 0x1000;   // mark of a conversation's message: the other side may send now
constexpr uint32_t CONVERSATION = 12345;  // descriptor of each conversation: a connection has one at a time
constexpr uint32_t CONVERSATION_ROWS = 64, BLOCK_SECONDS = 60, TRANSACTION_SECONDS = 60;
constexpr size_t LONGEST_MESSAGE = 1 << 20;

static uint32_t word_at(const char *bytes)
{
    uint32_t word;
    memcpy(&word, bytes, sizeof word);
    return ntohl(word);
}

static void set_word(char *bytes, uint32_t value)
{
    value = htonl(value);
    memcpy(bytes, &value, sizeof value);
}

static void no_delay(int fd)
{
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void send_all(int fd, const char *bytes, size_t size)
{
    while (size > 0) {
        ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL);
        if (sent <= 0)
            give_up("send: %s", strerror(errno));
        bytes += sent;
        size -= (size_t)sent;
    }
}

void receive_all(int fd, char *bytes, size_t size)
{
    while (size > 0) {
        ssize_t got = recv(fd, bytes, size, MSG_WAITALL);
        if (got <= 0)
            give_up("recv: %s", got == 0 ? "end of the stream" : strerror(errno));
        bytes += got;
        size -= (size_t)got;
    }
}

// --- The responder's side. Its threads end when their connection does, and with the process at the latest.

static bool reply_all(int fd, const char *bytes, size_t size)
{
    while (size > 0) {
        ssize_t sent = send(fd, bytes, size, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes += sent;
        size -= (size_t)sent;
    }
    return true;
}

static void answer_bare(int fd)
{
    char first[4];
    if (recv(fd, first, sizeof first, MSG_WAITALL) != (ssize_t)sizeof first)
        return;
    size_t size = word_at(first);
    if (size > LONGEST_MESSAGE)
        return;
    std::vector<char> message(size);
    while (recv(fd, message.data(), size, MSG_WAITALL) == (ssize_t)size &&
           reply_all(fd, message.data(), size))
        ;
}

// What a start reply tells behind its header: no nodes, one queue, no services, and never to compress.
static size_t fill_start_data(char *data)
{
    constexpr size_t NAME = 16;
    set_word(data, 0);
    set_word(data + 4, 1);
    set_word(data + 8, 0);
    memset(data + 12, 0, NAME);
    memcpy(data + 12, QUEUE_NAME, sizeof QUEUE_NAME);
    set_word(data + 12 + NAME, UINT32_MAX);
    return 12 + NAME + 4;
}

// How many calls a session may have outstanding; the process has it from its start.
static uint32_t acall_rows;

static size_t fill_start_reply(char *head)
{
    size_t size = fill_start_data(head + MESSAGE_HEAD);
    set_word(head + AT_RCODE, acall_rows);
    set_word(head + AT_CD, CONVERSATION_ROWS);
    set_word(head + AT_PRIO, 1);
    set_word(head + AT_VALUE, 1);
    set_word(head + AT_XID, 0);
    set_word(head + AT_XID + 4, TRANSACTION_SECONDS);
    set_word(head + AT_XID + 8, BLOCK_SECONDS);
    set_word(head + AT_SESSID, 1);
    set_word(head + AT_DATALEN, (uint32_t)size);
    return MESSAGE_HEAD + size;
}

// Puts data of `size` bytes behind the header. The client waits for it: no other message stands there.
static size_t fill_data(char *head, size_t size)
{
    set_word(head + AT_BUFTYPE, CARRAY);
    set_word(head + AT_BUFSIZE, (uint32_t)size);
    set_word(head + AT_DATALEN, (uint32_t)size);
    return MESSAGE_HEAD + size;
}

// The acceptance, without data. Where a service's answer is due it follows at once, with the request's data.
static size_t accept_enqueue(char *bytes, size_t size, bool answered)
{
    if (answered) {
        memmove(bytes + MESSAGE_HEAD, bytes, size);
        set_word(bytes + MESSAGE_HEAD + AT_MSGTYPE, STORED + REPLY);
        set_word(bytes + MESSAGE_HEAD + AT_FLAGS, 0);
    }
    set_word(bytes + AT_DATALEN, 0);
    return answered ? MESSAGE_HEAD + size : MESSAGE_HEAD;
}

static size_t tell_groups(char *head)
{
    for (uint32_t i = 0; i < GROUP_COUNT; i++)
        set_word(head + MESSAGE_HEAD + 4 * i, i + 1);
    set_word(head + AT_RCODE, GROUP_COUNT);
    return fill_data(head, 4 * GROUP_COUNT);
}

// A dequeue asks for a message of so many bytes by the name of its service.
static size_t give_message(char *head)
{
    size_t size = (size_t)atoi(head + AT_SVCNAME);
    return fill_data(head, size < LONGEST_MESSAGE / 2 ? size : 0);
}

// Turns the message at the front of `bytes` into its answer; the answer's size, 0 where none is due.
static size_t turn_into_answer(char *bytes, size_t size)
{
    uint32_t type = word_at(bytes + AT_MSGTYPE);
    bool answered = (word_at(bytes + AT_FLAGS) & ENQUEUE_UNANSWERED) == 0;
    if (type == SEND)  // goes back as it came, with the right to send
        return (word_at(bytes + AT_FLAGS) & HANDS_OVER) != 0 ? size : 0;
    if (type == DISCON)
        return 0;
    set_word(bytes + AT_MSGTYPE, type + REPLY);
    set_word(bytes + AT_FLAGS, 0);
    if (type == CONNECT)
        set_word(bytes + AT_CD, CONVERSATION);
    switch (type) {
    case START:
    case INIT:
        return fill_start_reply(bytes);
    case ENQUEUE:
        return accept_enqueue(bytes, size, answered);
    case DEQUEUE:
        return give_message(bytes);
    case GROUPS:
        return tell_groups(bytes);
    default:
        return size;  // calls, and commits: their result is the request's rcode, which is 0
    }
}

static void answer_protocol(int fd)
{
    std::vector<char> buffer(2 * LONGEST_MESSAGE);  // an enqueue's answer is longer than its request
    size_t there = 0;
    for (;;) {
        size_t wanted = MESSAGE_HEAD;
        if (there >= MESSAGE_HEAD)
            wanted += word_at(buffer.data() + AT_DATALEN);
        if (wanted > LONGEST_MESSAGE)
            return;
        if (there < wanted) {
            // The first read takes whatever is there; a long message's rest then comes with one more.
            bool rest = there >= MESSAGE_HEAD;
            ssize_t got = rest ? recv(fd, buffer.data() + there, wanted - there, MSG_WAITALL)
                               : recv(fd, buffer.data() + there, LONGEST_MESSAGE - there, 0);
            if (got <= 0)
                return;
            there += (size_t)got;
            continue;
        }
        there -= wanted;
        size_t answer = turn_into_answer(buffer.data(), wanted);
        if (!reply_all(fd, buffer.data(), answer))
            return;
        memmove(buffer.data(), buffer.data() + wanted, there);
    }
}

static int listen_on_free_port(int *port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, (sockaddr *)&address, sizeof address) != 0 || listen(fd, 256) != 0 ||
        getsockname(fd, (sockaddr *)&address, &length) != 0)
        give_up("can't listen: %s", strerror(errno));
    *port = ntohs(address.sin_port);
    return fd;
}

[[noreturn]] static void serve(int protocol_fd, int bare_fd)
{
    pollfd ports[2] = {{protocol_fd, POLLIN, 0}, {bare_fd, POLLIN, 0}};
    for (;;) {
        poll(ports, 2, -1);
        for (const pollfd &port : ports) {
            if ((port.revents & POLLIN) == 0)
                continue;
            int fd = accept(port.fd, nullptr, nullptr);
            if (fd < 0)
                continue;
            no_delay(fd);
            auto answer = port.fd == protocol_fd ? answer_protocol : answer_bare;
            std::thread([fd, answer] {
                answer(fd);
                close(fd);
            }).detach();
        }
    }
}

server start_responder(uint32_t outstanding)
{
    server peer;
    int protocol_fd = listen_on_free_port(&peer.protocol_port),
        bare_fd = listen_on_free_port(&peer.bare_port);
    peer.pid = fork();
    if (peer.pid < 0)
        give_up("fork: %s", strerror(errno));
    if (peer.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        acall_rows = outstanding;
        serve(protocol_fd, bare_fd);
    }
    close(protocol_fd);
    close(bare_fd);
    return peer;
}

server start_clhsim(const settings &chosen)
{
    int ready[2];
    if (pipe(ready) != 0)
        give_up("pipe: %s", strerror(errno));
    server peer;
    peer.pid = fork();
    if (peer.pid < 0)
        give_up("fork: %s", strerror(errno));
    if (peer.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        close(ready[0]);
        if (freopen("/dev/null", "w", stdout) == nullptr)
            _exit(127);
        std::string ready_fd = std::to_string(ready[1]);
        execl(chosen.clhsim.c_str(), "clhsim", "--port", "0", "--ready-fd", ready_fd.c_str(),
              (char *)nullptr);
        _exit(127);
    }
    close(ready[1]);
    char text[16] = "";
    if (read(ready[0], text, sizeof text - 1) <= 0)
        give_up("%s doesn't start", chosen.clhsim.c_str());
    close(ready[0]);
    peer.protocol_port = atoi(text);
    return peer;
}

void stop_server(server *peer)
{
    kill(peer->pid, SIGKILL);
    waitpid(peer->pid, nullptr, 0);
    peer->pid = -1;
}

void point_library_at(const server &peer)
{
    std::string address = "127.0.0.1:" + std::to_string(peer.protocol_port);
    setenv("VORN_HOST_ADDR", address.c_str(), 1);
}

int connect_bare(const server &peer, uint32_t size)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons((uint16_t)peer.bare_port);
    if (fd < 0 || connect(fd, (sockaddr *)&address, sizeof address) != 0)
        give_up("can't connect: %s", strerror(errno));
    no_delay(fd);
    char first[4];
    set_word(first, size);
    send_all(fd, first, sizeof first);
    return fd;
}
