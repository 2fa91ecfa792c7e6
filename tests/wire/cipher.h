// The cipher of enciphered sessions, in the tests' hands: this program's functions stand in front of
// libkexcli's. They do what a test tells them, or pass on to the library, and see to it that the handles are
// used as they may be. And the server's end of an enciphered connection.
#ifndef VORN_TESTS_WIRE_CIPHER_H
#define VORN_TESTS_WIRE_CIPHER_H

#include <dlfcn.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>

#include "kexcli.h"
#include "support/gtest.h"
#include "support/peer.h"

namespace cipher {

// What a scripted _dh_negotiate gives: so many bytes of `fill` in the output, as far as there is room.
struct step {
    int state;
    int32_t length = 0;
    char fill = 'k';
};

typedef std::function<int(char *to, const char *from, int length)> transform;

// A handle as the library under test sees it. Kept for good, so that a use behind its end is seen.
struct session {
    void *real = nullptr;
    std::atomic<int> users[2] = {0, 0};  // by direction
    std::atomic<bool> closed{false};
};

struct provider {
    bool scripted = false;       // true: no keys are exchanged and the steps are `steps`
    bool no_session = false;     // _dh_init_sess gives null
    std::deque<step> steps;      // used up from the front; afterwards the exchange is finished
    transform encrypt, decrypt;  // in place of the usual ones; to be set while nobody ciphers

    // What was seen.
    std::vector<std::string> inputs;  // of each _dh_negotiate
    std::vector<int> lengths;         // the same, as they were told
    int mode = -1, fd = -1;           // of the last _dh_init_sess
    std::atomic<int> opened{0}, closed{0}, null_closes{0}, misuses{0};
    std::mutex mutex;
    std::vector<std::unique_ptr<session>> sessions;

    int live() const { return opened - closed; }
};
inline provider fake;

// The linker leaves libkexcli out of a program that has all of its names, so it is opened by hand: where the
// build puts it, since a sanitizer's dlopen doesn't look along the program's path.
inline void *open_library()
{
    char path[4096] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) < 0)
        return nullptr;
    std::string program = path;
    std::string build = program.substr(0, program.rfind("/bin/"));
    return dlopen((build + "/lib/libkexcli.so").c_str(), RTLD_NOW);
}

template <typename Function> Function *library(Function *, const char *name)
{
    static void *const opened = open_library();
    Function *found = opened == nullptr ? nullptr : (Function *)dlsym(opened, name);
    if (found == nullptr) {
        fprintf(stderr, "libkexcli has no %s\n", name);
        abort();
    }
    return found;
}
inline auto *const init_sess = library(_dh_init_sess, "_dh_init_sess");
inline auto *const negotiate = library(_dh_negotiate, "_dh_negotiate");
inline auto *const encrypt = library(_dh_encrypt, "_dh_encrypt");
inline auto *const decrypt = library(_dh_decrypt, "_dh_decrypt");
inline auto *const close_sess = library(_dh_close_sess, "_dh_close_sess");

// The scripted cipher: a mark in front and every bit turned round, so that nothing is legible by chance.
constexpr char MARK[] = "SEAL";
constexpr int MARK_SIZE = 4;

inline std::string turned(std::string bytes)
{
    for (char &byte : bytes)
        byte = (char)~byte;
    return bytes;
}
inline std::string sealed(const std::string &plain)
{
    return MARK + turned(plain);
}
inline std::string opened(const std::string &sealed)
{
    return sealed.compare(0, MARK_SIZE, MARK) == 0 ? turned(sealed.substr(MARK_SIZE)) : "";
}

inline int put(char *to, const std::string &bytes)
{
    memcpy(to, bytes.data(), bytes.size());
    return (int)bytes.size();
}

// One use of a handle: nobody else may use it in the same direction, and nobody may have closed it.
struct use {
    session *it;
    int direction;

    use(void *handle, int which) : it((session *)handle), direction(which)
    {
        if (it != nullptr && (it->users[direction]++ != 0 || it->closed))
            fake.misuses++;
    }
    ~use()
    {
        if (it == nullptr)
            return;
        if (it->closed)
            fake.misuses++;
        it->users[direction]--;
    }
};

constexpr int RECEIVING = 0, SENDING = 1;

}  // namespace cipher

extern "C" {

__attribute__((used)) inline void *_dh_init_sess(int mode, int fd)
{
    using namespace cipher;
    fake.mode = mode;
    fake.fd = fd;
    if (fake.no_session)
        return nullptr;
    std::lock_guard<std::mutex> lock(fake.mutex);
    fake.sessions.push_back(std::make_unique<session>());
    session *made = fake.sessions.back().get();
    if (!fake.scripted)
        made->real = init_sess(mode, fd);
    fake.opened++;
    return made;
}

__attribute__((used)) inline int _dh_negotiate(void *handle, const void *in, int in_len, void *out,
                                               int32_t *out_len)
{
    using namespace cipher;
    use both[] = {{handle, RECEIVING}, {handle, SENDING}};
    fake.lengths.push_back(in_len);
    fake.inputs.push_back(std::string((const char *)in, (size_t)(in_len > 0 ? in_len : 0)));
    if (!fake.scripted)
        return negotiate(((session *)handle)->real, in, in_len, out, out_len);
    if (fake.steps.empty())
        return KEXCLI_FINISHED;
    step now = fake.steps.front();
    fake.steps.pop_front();
    constexpr int ROOM = 280;
    memset(out, now.fill, (size_t)(now.length < 0 ? 0 : now.length > ROOM ? ROOM : now.length));
    *out_len = now.length;
    return now.state;
}

__attribute__((used)) inline int _dh_encrypt(void *handle, void *destination, const void *source, int length)
{
    using namespace cipher;
    use one(handle, SENDING);
    if (fake.encrypt)
        return fake.encrypt((char *)destination, (const char *)source, length);
    if (handle == nullptr)
        return -1;
    if (fake.scripted)
        return put((char *)destination, sealed(std::string((const char *)source, (size_t)length)));
    return encrypt(((session *)handle)->real, destination, source, length);
}

__attribute__((used)) inline int _dh_decrypt(void *handle, void *destination, const void *source, int length)
{
    using namespace cipher;
    use one(handle, RECEIVING);
    if (fake.decrypt)
        return fake.decrypt((char *)destination, (const char *)source, length);
    if (handle == nullptr)
        return 0;
    if (fake.scripted)
        return put((char *)destination, opened(std::string((const char *)source, (size_t)length)));
    return decrypt(((session *)handle)->real, destination, source, length);
}

__attribute__((used)) inline void _dh_close_sess(void *handle)
{
    using namespace cipher;
    session *ended = (session *)handle;
    if (ended == nullptr) {
        fake.null_closes++;
        return;
    }
    if (ended->closed.exchange(true) || ended->users[RECEIVING] != 0 || ended->users[SENDING] != 0)
        fake.misuses++;
    close_sess(ended->real);
    fake.closed++;
}
}

namespace cipher {

constexpr uint32_t STEP = 1, SERVERS_STEP = 1001, SEALED = 3, ENVELOPE_BUFTYPE = 10;
constexpr size_t ENVELOPE_HEAD = 16;

inline std::string envelope(uint32_t msgtype, const std::string &payload)
{
    return wire::word(wire::ENVELOPE_FRAME) + wire::word((uint32_t)payload.size()) +
           wire::word(ENVELOPE_BUFTYPE) + wire::word(msgtype) + payload;
}

// A whole message in wire order, taken apart.
inline wire::frame message_of(const std::string &plain)
{
    if (plain.size() < (size_t)wire::HEADER)
        return wire::frame();
    wire::frame message = wire::decode_header(plain);
    message.data = plain.substr(wire::HEADER);
    return message;
}

// The payload of the next envelope, whose type must be this one. False if there is none.
inline bool read_envelope(Conn &conn, uint32_t msgtype, std::string *payload)
{
    std::string head = conn.read_bytes(ENVELOPE_HEAD);
    if (head.size() != ENVELOPE_HEAD)
        return false;
    EXPECT_EQ(wire::word_at(head, 0), (uint32_t)wire::ENVELOPE_FRAME);
    EXPECT_EQ(wire::word_at(head, 8), ENVELOPE_BUFTYPE);
    EXPECT_EQ(wire::word_at(head, 12), msgtype);
    uint32_t length = wire::word_at(head, 4);
    *payload = conn.read_bytes(length);
    return payload->size() == length;
}

// The server's end, with the library's own cipher or the scripted one.
struct Server {
    Conn &conn;
    void *keys = nullptr;
    std::string scripted_hello;  // what is awaited as the only step of a scripted exchange, if anything is

    explicit Server(Conn &connection) : conn(connection) {}
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;
    ~Server() { close_sess(keys); }

    // The server's steps of an exchange, up to its end.
    bool exchange(where place = where::current())
    {
        std::string hello, finish;
        close_sess(keys);
        keys = init_sess(KEXCLI_MODE_SERVER, -1);
        if (read_envelope(conn, STEP, &hello) && answer(hello) == KEXCLI_EXCHANGE &&
            read_envelope(conn, STEP, &finish) && answer(finish) == KEXCLI_FINISHED)
            return true;
        ADD_FAILURE_AT(place.file, place.line) << "the exchange of keys has failed";
        conn.hang_up();
        return false;
    }
    int answer(const std::string &input)
    {
        char output[KEXCLI_MAX_OUTPUT];
        int32_t length = 0;
        int state = negotiate(keys, input.data(), (int)input.size(), output, &length);
        if (length > 0)
            conn.send_raw(envelope(SERVERS_STEP, std::string(output, (size_t)length)));
        return state;
    }

    std::string seal(const std::string &plain) const
    {
        if (keys == nullptr)
            return sealed(plain);
        std::string bytes(plain.size() + KEXCLI_MAX_OVERHEAD, '\0');
        int length = encrypt(keys, bytes.data(), plain.data(), (int)plain.size());
        bytes.resize((size_t)(length > 0 ? length : 0));
        return bytes;
    }
    std::string open(const std::string &payload) const
    {
        if (keys == nullptr)
            return opened(payload);
        std::string bytes(payload.size() + 1, '\0');
        int length = decrypt(keys, bytes.data(), payload.data(), (int)payload.size());
        bytes.resize((size_t)(length > 0 ? length : 0));
        return bytes;
    }

    std::string seal_frame(const std::string &plain) const { return envelope(SEALED, seal(plain)); }
    void send(const wire::frame &message) { conn.send_raw(seal_frame(wire::encode(message))); }
    void reply(const std::string &data = "", const wire::with &fields = {})
    {
        send(wire::answer(conn.last, data, fields));
    }

    // False if no whole message comes.
    bool receive(wire::frame *message)
    {
        std::string payload;
        if (!read_envelope(conn, SEALED, &payload))
            return false;
        *message = message_of(open(payload));
        conn.last = *message;
        return true;
    }
    Expected expect(int32_t msgtype, where place = where::current())
    {
        Expected expected{wire::frame(), place};
        bool came = receive(&expected.frame);
        if (came && expected.frame.msgtype == msgtype)
            return expected;
        ADD_FAILURE_AT(place.file, place.line)
            << (came ? "another enciphered message came: " + std::to_string(expected.frame.msgtype)
                     : std::string("no enciphered message came"));
        conn.hang_up();
        return expected;
    }
};

}  // namespace cipher

#endif
