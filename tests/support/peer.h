// The scripted peer: plays the server's side of a conversation, frame by frame.
//
//     peer.play([&] {
//         peer.accept_start();
//         peer.expect(wire::TPCALL).svcname("TOUPPER").data("abcd");
//         peer.reply("ABCD");
//     });
//     ASSERT_EQ(tpstart(nullptr), 0);
//     ... tpcall ...
//
// It listens on a free port of 127.0.0.1 and has a header codec of its own, which shares nothing with the
// library's. Every expectation has a time limit; one that fails is a test failure at its line, and hangs up,
// so that a client that waits for an answer gets an end instead. What comes after a hang-up does nothing.
//
// The script runs in the test's thread (the client then in others, see Task) or, with play(), in one of its
// own.
#ifndef VORN_TESTS_SUPPORT_PEER_H
#define VORN_TESTS_SUPPORT_PEER_H

#include <stdint.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/faults.h"
#include "support/ports.h"

namespace wire {

enum message : int32_t {
    TPSTART = 1,
    TPEND = 2,
    TPCALL = 3,
    TPACALL = 4,
    TPCONNECT = 5,
    TPSEND = 6,
    TPRECV = 7,
    TPDISCON = 8,
    TPGETUNSOL = 11,
    TPPOST = 12,
    TPBROADCAST = 13,
    TPNOTIFY = 14,
    TPSENDTOCLI = 19,
    TPINIT = 21,
    TPRQS = 25,
    TPACALL_BLOCK = 28,
    TX_COMMIT = 32,
    TX_ROLLBACK = 33,
    USERLOG = 121,
    ULOGSYNC = 123,
    SET_REQUEST = 130
};
constexpr int32_t REPLY = 1000, EREPLY = 2000;

enum buffer : int32_t { STRUCT = 1, FIELD = 2, STRING = 3, CARRAY = 4, START = 5, HEADER_ONLY = 9 };

constexpr uint32_t MAGIC = 0x90352082;
constexpr uint32_t RAW_FRAME = 6666, COMPRESSED_FRAME = 99999999, ENVELOPE_FRAME = 77777777;
constexpr int32_t SHARED_CALL = 0x40000000;  // seqno mark of a TPCALL that travels as a TPACALL
constexpr int HEADER = 136;

// A message in host order.
struct frame {
    uint32_t magic = MAGIC;
    int32_t seqno = 0, buftype = HEADER_ONLY, bufsize = 0, msgtype = 0, rcode = 0, srcid = 0, target = 0;
    int32_t prio = 0, value = 0;
    uint32_t xid[3] = {0, 0, 0};
    std::string subtype, svcname;
    int32_t datalen = 0;
    uint32_t flags = 0;
    int32_t cd = 0, sessid = 0;
    uint32_t xflags = 0, reserved = 0, callid[3] = {0, 0, 0};
    std::string data;
    bool compressed = false;  // it came in a compressed frame
};

std::string encode(const frame &message);                   // header and data
std::string encode_header(const frame &message);            // the 136 bytes
frame decode_header(const std::string &bytes);              // at least 136 bytes
uint32_t word_at(const std::string &bytes, size_t offset);  // big-endian
std::string word(uint32_t value);                           // big-endian
std::string compressed_frame(const std::string &message);  // as the server writes it: plain size at offset 12
std::string raw_frame(const std::string &data);

// The same fields for every message that a test sends. What isn't named keeps the value that fits the
// message.
struct with {
    int32_t msgtype = -1;  // reply: the request's plus 1000
    int32_t rcode = 0;     // becomes tpurcode
    uint32_t flags = 0;    // reply: becomes tperrno, and 2000 is added to the request's type instead of 1000
    int32_t buftype = -1;  // STRING with data, header only without
    int32_t bufsize = -1;  // the data's length
    int32_t datalen = -1;  // the data's length
    int32_t cd = INT32_MIN;     // reply: the request's
    int32_t seqno = INT32_MIN;  // reply: the request's
    std::string subtype = "";
    uint32_t xflags = 0;
    int32_t srcid = 0, target = 0, value = 0, sessid = 0;
};

frame message(int32_t msgtype, const std::string &data = "", const with &fields = {});
frame answer(const frame &request, const std::string &data = "", const with &fields = {});

// What the server tells in its start reply.
struct start_reply {
    int32_t acall_size = 16, conv_size = 8;
    int32_t block_time = 0, tx_timeout = 0;
    int32_t threshold = -1;
    int32_t engine_version = 1;
    int32_t client = 7;
    uint32_t location = 1;  // bits 0 to 7 the CLH's number, bits 8 up the node's
    int32_t token = 0x1234;
    std::vector<std::string> nodes = {"NODE1"};
    std::vector<std::string> queues = {};
    std::vector<std::string> thirds = {};  // rows of the third table, 32 bytes each
    std::string server_name = "";          // tagged value 0, if not empty
    bool with_payload = true;
    int32_t refuse = 0;        // not 0: an error reply with this in `target`
    std::string payload = "";  // instead of the one made from the above, if not empty
};
std::string start_payload(const start_reply &reply);
frame start_answer(const frame &request, const start_reply &reply);

}

// The line of the test that a failure names; as a default argument it is the caller's.
struct where {
    const char *file;
    int line;
    static constexpr where current(const char *file = __builtin_FILE(), int line = __builtin_LINE())
    {
        return {file, line};
    }
};

// A message that arrived, and checks on it that read on: peer.expect(...).svcname("X").data("abcd").
struct Expected {
    wire::frame frame;
    where place;

    const Expected &svcname(const std::string &name) const;
    const Expected &data(const std::string &bytes) const;
    const Expected &text(const std::string &text) const;  // the text and its NUL, as a STRING travels
    const Expected &flags(uint32_t flags) const;
    const Expected &cd(int32_t cd) const;
    const Expected &seqno(int32_t seqno) const;
    const Expected &buftype(int32_t buftype) const;
    const Expected &prio(int32_t prio) const;
    const Expected &header_only() const;
    const Expected &compressed(bool is) const;
    operator const wire::frame &() const { return frame; }
};

// One connection, seen from the server's side.
struct Conn {
    int fd = -1;
    wire::frame last;            // the last message that arrived
    std::string sent, received;  // all bytes of the connection, both ways, since `start_recording`
    bool recording = false;
    int seconds = faults::PATIENCE_SECONDS;  // limit of each expectation

    Conn() = default;
    explicit Conn(int open_fd) : fd(open_fd) {}
    Conn(const Conn &) = delete;
    Conn &operator=(const Conn &) = delete;
    ~Conn() { hang_up(); }

    // The next message must be of this type.
    Expected expect(int32_t msgtype, where place = where::current());
    // The next message, whatever it is; false if none comes (no failure).
    bool receive(wire::frame *message);
    // The client closes the connection, and nothing comes before that.
    void expect_end(where place = where::current());
    bool something_came();  // without waiting
    // Nothing has been sent to this side so far.
    void expect_nothing(where place = where::current());

    void send(const wire::frame &message);
    void reply(const std::string &data = "", const wire::with &fields = {});  // to the last message
    void reply_to(const wire::frame &request, const std::string &data = "", const wire::with &fields = {});
    void send_raw(const std::string &bytes);
    void send_compressed(const wire::frame &message);
    void send_urgent(int byte);
    void hang_up();           // both directions; what was sent before still arrives
    void reset_connection();  // the other side gets ECONNRESET
    void half_close();        // no more from here, but the client may still send

    // Replies to a start message that has already been accepted.
    void reply_start(const wire::start_reply &reply = {});
    void serve_end();  // TPEND and its reply

    std::string read_bytes(size_t length);  // fewer if they don't come

  private:
    void fail(const std::string &what, const where &place);
    friend struct Peer;
};

// The server: a listening socket, and the connection accepted last.
struct Peer : Conn {
    int port = 0;
    int held;  // keeps the port when nobody listens any more
    int listener;

    Peer();
    ~Peer();
    std::string address() const;  // 127.0.0.1:PORT

    bool accept(where place = where::current());
    bool accept(Conn *conn, where place = where::current());  // beside the one at hand
    // Accepts, takes TPSTART or TPINIT, answers. The start message.
    Expected accept_start(const wire::start_reply &reply = {}, where place = where::current());
    // Accepts, and plays the server's side of a recorded conversation: the client's messages must be those of
    // the file byte for byte, and the connection must end behind the last one. The format stands in the
    // files.
    void follow(const std::string &path, where place = where::current());
    bool nobody_knocks();   // no connection waits to be accepted
    void stop_listening();  // further attempts are refused

    // Runs the script in a thread of its own; done() waits for its end, as the destructor does.
    void play(std::function<void()> script);
    void done();

  private:
    std::thread player;
};

// The client's side in a thread of its own. get() waits for the result; a client that doesn't come back is a
// failure, and the peer hangs up so that it does. Made last, destroyed first.
struct Task {
    Task(Conn &peer, std::function<long()> work);
    ~Task();
    long get(where place = where::current());
    bool finished() const { return ended.load(); }

  private:
    Conn &conn;
    long result = 0;
    std::atomic<bool> ended{false};
    bool joined = false;
    std::thread thread;
};

#endif
