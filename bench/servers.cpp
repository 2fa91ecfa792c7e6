#include "servers.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <kexcli.h>
#include <memory>
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
    AT_TARGET = 28,
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
                   STORED = 25, GROUPS = 46, KEYS = 181, REPLY = 1000;
constexpr uint32_t OPEN_MESSAGES = 500, OPEN_END = 502, GET_NEXT = 505, ACKNOWLEDGE = 506, DELIVERY = 507;
constexpr uint32_t GET_KEY = 2, HEADER_ONLY = 9;
constexpr uint32_t FIELDS = 2, CARRAY = 4;             // kinds of data
constexpr uint32_t ENQUEUE_UNANSWERED = 0x4 | 0x4000;  // no service's answer follows the acceptance
constexpr uint32_t HANDS_OVER = 0x1000;   // mark of a conversation's message: the other side may send now
constexpr uint32_t CONVERSATION = 12345;  // descriptor of each conversation: a connection has one at a time
constexpr uint32_t CONVERSATION_ROWS = 64, BLOCK_SECONDS = 60, TRANSACTION_SECONDS = 60;
constexpr size_t LONGEST_MESSAGE = 1 << 20;
constexpr char WARNING = (char)217;  // one urgent byte: the server is going down

// An envelope's head: 77777777, the payload's length, 10, the kind of message.
constexpr size_t ENVELOPE_HEAD = 16;
constexpr uint32_t ENVELOPE_MARK = 77777777, ENVELOPE_BUFTYPE = 10, STEP = 1, SEALED = 3;

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
    char first[8];
    if (recv(fd, first, sizeof first, MSG_WAITALL) != (ssize_t)sizeof first)
        return;
    size_t size = word_at(first), behind = word_at(first + 4);
    if (size > LONGEST_MESSAGE || behind > LONGEST_MESSAGE)
        return;
    std::vector<char> message(size), unanswered(behind);
    while (recv(fd, message.data(), size, MSG_WAITALL) == (ssize_t)size &&
           reply_all(fd, message.data(), size))
        if (behind > 0 && recv(fd, unanswered.data(), behind, MSG_WAITALL) != (ssize_t)behind)
            return;
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

// What a key keeps: a message of so many bytes as the key says, behind the key. A put is accepted unseen.
static size_t answer_key_store(char *head)
{
    size_t key = word_at(head + AT_TARGET), size = (size_t)atoi(head + MESSAGE_HEAD);
    if (word_at(head + AT_RCODE) != GET_KEY || key > LONGEST_MESSAGE / 4 || size > LONGEST_MESSAGE / 2) {
        set_word(head + AT_BUFTYPE, HEADER_ONLY);
        set_word(head + AT_DATALEN, 0);
        return MESSAGE_HEAD;
    }
    char *value = head + MESSAGE_HEAD + key;
    memcpy(value, head, MESSAGE_HEAD);
    return fill_data(head, key + fill_data(value, size));
}

// A session of the message service, or an end of one, gets a number of its own.
static size_t open_for_messages(char *head, header_offset place)
{
    static std::atomic<uint32_t> given = 0;
    set_word(head + place, ++given);
    set_word(head + AT_BUFTYPE, HEADER_ONLY);
    set_word(head + AT_BUFSIZE, 0);
    set_word(head + AT_DATALEN, 0);
    return MESSAGE_HEAD;
}

// A message with a body of as many bytes as the session's name says, behind its first character.
static size_t deliver(char *head)
{
    constexpr char BODY_NAME[] = "$Data";
    constexpr uint32_t MAGIC = 8888, NAME_KEY = 7 << 26, BODY_KEY = 8 << 26;
    constexpr size_t AT_NAME = 8, AT_BODY = 24, ALIGNMENT = 8;
    size_t body = (size_t)atoi(head + AT_SVCNAME + 1);
    if (body > LONGEST_MESSAGE / 2)
        body = 0;
    size_t used = AT_BODY + (8 + body + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
    char *data = head + MESSAGE_HEAD;
    memset(data, 0, AT_BODY + 8);
    set_word(data, MAGIC);
    set_word(data + 4, (uint32_t)used);
    set_word(data + AT_NAME, NAME_KEY);
    memcpy(data + AT_NAME + 4, BODY_NAME, sizeof BODY_NAME);
    set_word(data + AT_BODY, BODY_KEY);
    set_word(data + AT_BODY + 4, (uint32_t)body);
    size_t size = fill_data(head, used);
    set_word(head + AT_BUFTYPE, FIELDS);
    set_word(head + AT_MSGTYPE, DELIVERY);
    return size;
}

// Turns the message at the front of `bytes` into its answer; the answer's size, 0 where none is due.
static size_t turn_into_answer(char *bytes, size_t size)
{
    uint32_t type = word_at(bytes + AT_MSGTYPE);
    bool answered = (word_at(bytes + AT_FLAGS) & ENQUEUE_UNANSWERED) == 0;
    if (type == SEND)  // goes back as it came, with the right to send
        return (word_at(bytes + AT_FLAGS) & HANDS_OVER) != 0 ? size : 0;
    if (type == DISCON || type == ACKNOWLEDGE)
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
    case KEYS:
        return answer_key_store(bytes);
    case OPEN_MESSAGES:
        return open_for_messages(bytes, AT_SESSID);
    case OPEN_END:
        return open_for_messages(bytes, AT_PRIO);
    case GET_NEXT:
        return deliver(bytes);
    default:
        return size;  // calls, messages, and commits: their result is the request's rcode, which is 0
    }
}

// Room for a message and for an answer that is longer, not cleared: to touch it all takes longer than a
// login.
using room = std::unique_ptr<char[]>;

static room new_room()
{
    return room(new char[2 * LONGEST_MESSAGE + KEXCLI_MAX_OVERHEAD]);
}

// What has come on a connection and isn't answered yet.
struct stream {
    int fd;
    size_t head_size, length_at;  // a frame is its head, and as many bytes more as the head's word there says
    room buffer = new_room();
    size_t there = 0;
};

// The size of the frame at the front, once all of it has come; 0 at the end of the stream. The first read
// takes whatever is there; a long frame's rest then comes with one more.
static size_t await_frame(stream *from)
{
    char *bytes = from->buffer.get();
    for (;;) {
        bool has_head = from->there >= from->head_size;
        size_t wanted = from->head_size + (has_head ? word_at(bytes + from->length_at) : 0);
        if (wanted > LONGEST_MESSAGE)
            return 0;
        if (has_head && from->there >= wanted)
            return wanted;
        size_t most = has_head ? wanted - from->there : LONGEST_MESSAGE - from->there;
        ssize_t got = recv(from->fd, bytes + from->there, most, has_head ? MSG_WAITALL : 0);
        if (got <= 0)
            return 0;
        from->there += (size_t)got;
    }
}

// An answer that is longer than its request goes over what came behind it: such requests come one by one.
static void answer_protocol(int fd)
{
    stream from = {fd, MESSAGE_HEAD, AT_DATALEN};
    char *bytes = from.buffer.get();
    while (size_t size = await_frame(&from)) {
        size_t answer = turn_into_answer(bytes, size);
        if (!reply_all(fd, bytes, answer))
            return;
        if (strcmp(bytes + AT_SVCNAME, WARN_NAME) == 0)
            send(fd, &WARNING, 1, MSG_OOB | MSG_NOSIGNAL);
        from.there -= size;
        memmove(bytes, bytes + size, from.there);
    }
}

static size_t put_envelope(char *head, uint32_t kind, int payload)
{
    set_word(head, ENVELOPE_MARK);
    set_word(head + 4, (uint32_t)payload);
    set_word(head + 8, ENVELOPE_BUFTYPE);
    set_word(head + 12, kind);
    return ENVELOPE_HEAD + (size_t)payload;
}

// The cipher's steps, until the keys stand.
static bool exchange_keys(stream *from, void *cipher)
{
    char out[ENVELOPE_HEAD + KEXCLI_MAX_OUTPUT];
    int state = KEXCLI_RECEIVE;
    while (state == KEXCLI_RECEIVE || state == KEXCLI_EXCHANGE) {
        size_t size = await_frame(from);
        if (size == 0)
            return false;
        char *bytes = from->buffer.get();
        int32_t length = 0;
        state = _dh_negotiate(cipher, bytes + ENVELOPE_HEAD, (int)(size - ENVELOPE_HEAD), out + ENVELOPE_HEAD,
                              &length);
        from->there -= size;
        memmove(bytes, bytes + size, from->there);
        if (length > 0 && !reply_all(from->fd, out, put_envelope(out, STEP + REPLY, length)))
            return false;
    }
    return state == KEXCLI_FINISHED || state == KEXCLI_SEND_LAST;
}

// As answer_protocol, each message in an envelope.
static void answer_enciphered(int fd)
{
    stream from = {fd, ENVELOPE_HEAD, 4};
    char *bytes = from.buffer.get();
    room plain = new_room(), sealed = new_room();
    void *cipher = _dh_init_sess(KEXCLI_MODE_SERVER, fd);
    bool open = exchange_keys(&from, cipher);
    while (open) {
        size_t frame = await_frame(&from);
        if (frame == 0)
            break;
        int size = _dh_decrypt(cipher, plain.get(), bytes + ENVELOPE_HEAD, (int)(frame - ENVELOPE_HEAD));
        from.there -= frame;
        memmove(bytes, bytes + frame, from.there);
        if (size < (int)MESSAGE_HEAD)
            break;
        size_t answer = turn_into_answer(plain.get(), (size_t)size);
        int payload = _dh_encrypt(cipher, sealed.get() + ENVELOPE_HEAD, plain.get(), (int)answer);
        open = payload > 0 && reply_all(fd, sealed.get(), put_envelope(sealed.get(), SEALED, payload));
    }
    _dh_close_sess(cipher);
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

struct listener {
    int fd;
    void (*answer)(int fd);
};

[[noreturn]] static void serve(const std::vector<listener> &ports)
{
    std::vector<pollfd> ready;
    for (const listener &port : ports)
        ready.push_back({port.fd, POLLIN, 0});
    for (;;) {
        poll(ready.data(), ready.size(), -1);
        for (size_t i = 0; i < ports.size(); i++) {
            if ((ready[i].revents & POLLIN) == 0)
                continue;
            int fd = accept(ports[i].fd, nullptr, nullptr);
            if (fd < 0)
                continue;
            no_delay(fd);
            std::thread([fd, answer = ports[i].answer] {
                answer(fd);
                close(fd);
            }).detach();
        }
    }
}

server start_responder(uint32_t outstanding)
{
    server peer;
    std::vector<listener> ports = {{listen_on_free_port(&peer.protocol_port), answer_protocol},
                                   {listen_on_free_port(&peer.bare_port), answer_bare},
                                   {listen_on_free_port(&peer.cipher_port), answer_enciphered}};
    peer.pid = fork();
    if (peer.pid < 0)
        give_up("fork: %s", strerror(errno));
    if (peer.pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        acall_rows = outstanding;
        serve(ports);
    }
    for (const listener &port : ports)
        close(port.fd);
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

static void set_address(const char *variable, int port)
{
    std::string address = "127.0.0.1:" + std::to_string(port);
    setenv(variable, address.c_str(), 1);
}

void point_library_at(const server &peer)
{
    set_address("VORN_HOST_ADDR", peer.protocol_port);
}

void point_enciphered_at(const server &peer)
{
    setenv("VORN_SEMANTICS", "CRYPT_SW=Y", 1);
    set_address("VORN_HOST_ADDR", peer.cipher_port);
}

void point_backup_at(const server &peer)
{
    set_address("VORN_BACKUP_ADDR", peer.protocol_port);
}

static int connect_to(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons((uint16_t)port);
    if (fd < 0 || connect(fd, (sockaddr *)&address, sizeof address) != 0)
        give_up("can't connect: %s", strerror(errno));
    no_delay(fd);
    return fd;
}

int connect_bare(const server &peer, uint32_t size, uint32_t behind)
{
    int fd = connect_to(peer.bare_port);
    char first[8];
    set_word(first, size);
    set_word(first + 4, behind);
    send_all(fd, first, sizeof first);
    return fd;
}

void log_in_bare(const server &peer)
{
    char message[4096] = {};
    int fd = connect_to(peer.protocol_port);
    set_word(message + AT_MSGTYPE, START);
    send_all(fd, message, MESSAGE_HEAD);
    receive_all(fd, message, MESSAGE_HEAD);
    size_t rest = word_at(message + AT_DATALEN);
    if (rest > sizeof message)
        give_up("a start reply of %zu bytes", rest);
    receive_all(fd, message, rest);
    close(fd);
}
