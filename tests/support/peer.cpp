#include "support/peer.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "sqz.h"
#include "support/gtest.h"

// The peer uses recvfrom, sendto and poll throughout: these aren't wrapped, so faults meet the library alone.

namespace {

using steady = std::chrono::steady_clock;

std::string printable(const std::string &bytes)
{
    std::string text;
    for (unsigned char c : bytes.substr(0, 80)) {
        char one[8];
        snprintf(one, sizeof one, c >= ' ' && c < 127 ? "%c" : "\\x%02x", c);
        text += one;
    }
    return bytes.size() > 80 ? text + "..." : text;
}

int milliseconds_left(steady::time_point end)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now()).count();
    return (int)std::max<long long>(0, left);
}

bool readable_until(int fd, steady::time_point end)
{
    for (;;) {
        pollfd one = {fd, POLLIN, 0};
        int ready = poll(&one, 1, milliseconds_left(end));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

std::string read_until(int fd, size_t length, steady::time_point end)
{
    std::string bytes(length, '\0');
    size_t got = 0;
    while (got < length && fd >= 0) {
        if (!readable_until(fd, end))
            break;
        ssize_t n = recvfrom(fd, bytes.data() + got, length - got, 0, nullptr, nullptr);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += (size_t)n;
    }
    bytes.resize(got);
    return bytes;
}

// One frame as the client writes it: plain, or compressed with the plain size at offset 8.
bool read_frame(int fd, wire::frame *message, std::string *bytes, steady::time_point end)
{
    constexpr size_t HEAD = 16;
    *bytes = read_until(fd, HEAD, end);
    if (bytes->size() < HEAD)
        return false;
    if (wire::word_at(*bytes, 0) != wire::COMPRESSED_FRAME) {
        *bytes += read_until(fd, wire::HEADER - HEAD, end);
        if (bytes->size() < wire::HEADER)
            return false;
        *message = wire::decode_header(*bytes);
        if (message->datalen > 0)
            message->data = read_until(fd, (size_t)message->datalen, end);
        *bytes += message->data;
        return message->datalen <= 0 || message->data.size() == (size_t)message->datalen;
    }
    size_t packed_length = wire::word_at(*bytes, 4), plain_length = wire::word_at(*bytes, 8);
    std::string packed = read_until(fd, packed_length, end);
    *bytes += packed;
    std::string plain(plain_length + 64, '\0');
    int64_t length = (int64_t)plain.size();
    if (packed.size() != packed_length ||
        _vorn_uncompress(plain.data(), &length, packed.data(), (int64_t)packed_length) != 0 ||
        (size_t)length != plain_length || plain_length < wire::HEADER)
        return false;
    *message = wire::decode_header(plain);
    message->data = plain.substr(wire::HEADER, plain_length - wire::HEADER);
    message->compressed = true;
    return message->data.size() == (size_t)message->datalen;
}

template <typename Value>
void same(const char *field, const Value &got, const Value &awaited, const where &place)
{
    if (got == awaited)
        return;
    ADD_FAILURE_AT(place.file, place.line)
        << "the message's " << field << " is " << testing::PrintToString(got) << ", awaited "
        << testing::PrintToString(awaited);
}

}

const Expected &Expected::svcname(const std::string &name) const
{
    same("svcname", frame.svcname, name, place);
    return *this;
}

const Expected &Expected::data(const std::string &bytes) const
{
    if (frame.data != bytes)
        ADD_FAILURE_AT(place.file, place.line)
            << "the message's data is " << frame.data.size() << " bytes \"" << printable(frame.data)
            << "\", awaited " << bytes.size() << " bytes \"" << printable(bytes) << "\"";
    return *this;
}

const Expected &Expected::text(const std::string &text) const
{
    return data(text + '\0');
}

const Expected &Expected::flags(uint32_t flags) const
{
    same("flags", frame.flags, flags, place);
    return *this;
}

const Expected &Expected::cd(int32_t cd) const
{
    same("cd", frame.cd, cd, place);
    return *this;
}

const Expected &Expected::seqno(int32_t seqno) const
{
    same("seqno", frame.seqno, seqno, place);
    return *this;
}

const Expected &Expected::buftype(int32_t buftype) const
{
    same("buftype", frame.buftype, buftype, place);
    return *this;
}

const Expected &Expected::prio(int32_t prio) const
{
    same("prio", frame.prio, prio, place);
    return *this;
}

const Expected &Expected::header_only() const
{
    same("buftype", frame.buftype, (int32_t)wire::HEADER_ONLY, place);
    same("datalen", frame.datalen, 0, place);
    return *this;
}

const Expected &Expected::compressed(bool is) const
{
    same("compressed", frame.compressed, is, place);
    return *this;
}

void Conn::fail(const std::string &what, const where &place)
{
    if (fd < 0)
        return;  // the first failure has been told, the rest follows from it
    ADD_FAILURE_AT(place.file, place.line) << what;
    hang_up();
}

bool Conn::receive(wire::frame *message)
{
    std::string bytes;
    *message = wire::frame();
    bool whole = read_frame(fd, message, &bytes, steady::now() + std::chrono::seconds(seconds));
    if (recording)
        received += bytes;
    if (whole)
        last = *message;
    return whole;
}

Expected Conn::expect(int32_t msgtype, where place)
{
    Expected expected{wire::frame(), place};
    if (fd < 0) {
        ADD_FAILURE_AT(place.file, place.line)
            << "no connection to await a message of type " << msgtype << " on";
        return expected;
    }
    bool came = receive(&expected.frame);
    if (!came)
        fail("no message came (or not all of it) where one of type " + std::to_string(msgtype) +
                 " was awaited",
             place);
    else if (expected.frame.msgtype != msgtype)
        fail("a message of type " + std::to_string(expected.frame.msgtype) + " came where type " +
                 std::to_string(msgtype) + " was awaited",
             place);
    return expected;
}

void Conn::expect_end(where place)
{
    std::string bytes = read_until(fd, 1, steady::now() + std::chrono::seconds(seconds));
    if (!bytes.empty())
        fail("a byte came where the end of the connection was awaited", place);
    pollfd one = {fd, POLLIN, 0};
    if (fd >= 0 && poll(&one, 1, 0) == 0)
        fail("the connection stands where its end was awaited", place);
}

bool Conn::something_came()
{
    char byte;
    return fd >= 0 && recvfrom(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT, nullptr, nullptr) >= 0;
}

void Conn::expect_nothing(where place)
{
    if (something_came())
        fail("something came where nothing was awaited", place);
}

void Conn::send_raw(const std::string &bytes)
{
    size_t done = 0;
    while (fd >= 0 && done < bytes.size()) {
        ssize_t n = sendto(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL, nullptr, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return;  // the client is gone; who cares for that awaits something else next
        done += (size_t)n;
    }
    if (recording)
        sent += bytes;
}

void Conn::send(const wire::frame &message)
{
    send_raw(wire::encode(message));
}

void Conn::reply(const std::string &data, const wire::with &fields)
{
    reply_to(last, data, fields);
}

void Conn::reply_to(const wire::frame &request, const std::string &data, const wire::with &fields)
{
    send(wire::answer(request, data, fields));
}

void Conn::send_compressed(const wire::frame &message)
{
    send_raw(wire::compressed_frame(wire::encode(message)));
}

void Conn::send_urgent(int byte)
{
    char one = (char)byte;
    if (fd >= 0)
        sendto(fd, &one, 1, MSG_OOB | MSG_NOSIGNAL, nullptr, 0);
}

void Conn::hang_up()
{
    if (fd < 0)
        return;
    // Unread bytes would turn the end into a reset, and the client would lose what was sent to it.
    char rest[4096];
    while (recvfrom(fd, rest, sizeof rest, MSG_DONTWAIT, nullptr, nullptr) > 0)
        ;
    close(fd);
    fd = -1;
}

void Conn::reset_connection()
{
    if (fd < 0)
        return;
    linger at_once = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    close(fd);
    fd = -1;
}

void Conn::half_close()
{
    if (fd >= 0)
        shutdown(fd, SHUT_WR);
}

void Conn::reply_start(const wire::start_reply &reply)
{
    send(wire::start_answer(last, reply));
}

void Conn::serve_end()
{
    expect(wire::TPEND);
    reply();
}

std::string Conn::read_bytes(size_t length)
{
    std::string bytes = read_until(fd, length, steady::now() + std::chrono::seconds(seconds));
    if (recording)
        received += bytes;
    return bytes;
}

int hold_port(int *port)
{
    sockaddr_in self = {};
    self.sin_family = AF_INET;
    self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    self.sin_port = htons((uint16_t)*port);
    socklen_t length = sizeof self;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, (sockaddr *)&self, sizeof self) != 0 || getsockname(fd, (sockaddr *)&self, &length) != 0) {
        perror("a port of this machine");
        abort();
    }
    *port = ntohs(self.sin_port);
    return fd;
}

Peer::Peer() : held(hold_port(&port)), listener(hold_port(&port))
{
    if (listen(listener, 64) != 0) {
        perror("scripted peer");
        abort();
    }
}

Peer::~Peer()
{
    done();
    hang_up();
    stop_listening();
    close(held);
}

std::string Peer::address() const
{
    return "127.0.0.1:" + std::to_string(port);
}

static int accept_within(int listener, int seconds)
{
    if (listener < 0 || !readable_until(listener, steady::now() + std::chrono::seconds(seconds)))
        return -1;
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    int on = 1;  // a script that sends twice in a row mustn't wait for the client's acknowledgement; local sockets refuse
    if (fd >= 0)
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

bool Peer::accept(where place)
{
    return accept(this, place);
}

bool Peer::accept(Conn *conn, where place)
{
    conn->hang_up();
    conn->fd = accept_within(listener, seconds);
    if (conn->fd < 0)
        ADD_FAILURE_AT(place.file, place.line) << "no connection came";
    return conn->fd >= 0;
}

Expected Peer::accept_start(const wire::start_reply &reply, where place)
{
    Expected expected{wire::frame(), place};
    if (!accept(place))
        return expected;
    if (!receive(&expected.frame))
        fail("no start message came", place);
    else if (expected.frame.msgtype != wire::TPSTART && expected.frame.msgtype != wire::TPINIT)
        fail("a message of type " + std::to_string(expected.frame.msgtype) + " came instead of a start",
             place);
    else
        reply_start(reply);
    return expected;
}

bool Peer::nobody_knocks()
{
    pollfd one = {listener, POLLIN, 0};
    return poll(&one, 1, 0) == 0;
}

void Peer::stop_listening()
{
    if (listener >= 0)
        close(listener);
    listener = -1;
}

void Peer::play(std::function<void()> script)
{
    done();
    player = std::thread(std::move(script));
}

void Peer::done()
{
    if (player.joinable())
        player.join();
}

Task::Task(Conn &peer, std::function<long()> work) : conn(peer)
{
    thread = std::thread([this, work = std::move(work)] {
        result = work();
        ended = true;
    });
}

static bool wait_for_end(const std::atomic<bool> &ended, int seconds)
{
    auto end = steady::now() + std::chrono::seconds(seconds);
    while (!ended && steady::now() < end)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    return ended;
}

long Task::get(where place)
{
    if (joined)
        return result;
    if (!wait_for_end(ended, faults::PATIENCE_SECONDS)) {
        ADD_FAILURE_AT(place.file, place.line) << "the client doesn't come back";
        shutdown(conn.fd, SHUT_RDWR);
        if (!wait_for_end(ended, 10)) {
            fprintf(stderr, "%s:%d: the client hangs even after the connection's end\n", place.file,
                    place.line);
            abort();
        }
    }
    thread.join();
    joined = true;
    return result;
}

Task::~Task()
{
    if (joined)
        return;
    if (!ended)
        shutdown(conn.fd, SHUT_RDWR);  // a test that gave up: don't wait for an answer that nobody will send
    get();
}
