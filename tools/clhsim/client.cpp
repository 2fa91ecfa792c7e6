// The life of a connection: bytes in, bytes out, and its end.
#include "godown.h"
#include "keystore.h"
#include "server.h"

#include <algorithm>
#include <cerrno>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace clhsim {

constexpr size_t READ_SIZE = 256 * 1024;
constexpr int READS_A_ROUND = 4;  // so that one busy client doesn't keep the others waiting
// Above this many bytes on their way to a client, its requests stay where they are until it has read some.
constexpr size_t CONGESTED = 16 * 1024 * 1024;
constexpr size_t TIMER_COST = 512;
constexpr size_t KEPT_CAPACITY = 1024 * 1024;
constexpr int32_t HIGHEST_NUMBER = 8191;  // a client number has 13 bits in the identity of a call
constexpr Clock::duration DRAIN_LIMIT = std::chrono::seconds(2);

static size_t unsent(const Client &client)
{
    return client.output.size() - client.written;
}

bool congested(const Client &client)
{
    return unsent(client) + client.held > CONGESTED;
}

static void settle_later(Server &server, Client &client)
{
    if (client.settling)
        return;
    client.settling = true;
    server.unsettled.push_back(client.id);
}

static int32_t free_number(Server &server)
{
    for (int32_t tries = 0; tries <= HIGHEST_NUMBER; tries++) {
        int32_t number = server.next_number;
        server.next_number = number == HIGHEST_NUMBER ? 0 : number + 1;
        if (!server.numbers.contains(number))
            return number;
    }
    return -1;
}

void add_client(Server &server, int fd, bool local)
{
    int32_t number = free_number(server);
    if (number == -1) {
        close(fd);
        return;
    }
    auto client = std::make_unique<Client>();
    client->id = ++server.last_id;
    client->fd = fd;
    client->number = number;
    client->transport = local ? "local" : "tcp";
    if (server.options.encipher && !begin_cipher(server, *client)) {
        say("client %d: no session of the cipher can be had; hung up", number);
        close(fd);
        return;
    }
    server.numbers[number] = client.get();
    server.stats.accepted++;
    watch(server, Source::CLIENT, client->id, fd, EPOLLIN, client->interest);
    server.clients[client->id] = std::move(client);
}

static void forget_client(Server &server, Client &client)
{
    if (client.timers > 0)
        std::erase_if(server.timers, [&](const auto &row) { return row.second.client == client.id; });
    close(client.fd);
    end_cipher(client);
    server.numbers.erase(client.number);
    server.clients.erase(client.id);
    resume_listening(server);
    end_if_alone(server);
}

static void end_connection(Server &server, Client &client)
{
    client.life = Life::DEAD;
    settle_later(server, client);
}

void hang_up(Server &server, Client &client, bool after_output)
{
    if (client.life != Life::OPEN)
        return;
    if (!after_output) {
        client.output.clear();
        client.written = 0;
    }
    client.life = Life::FLUSHING;
    settle_later(server, client);
}

void reset_connection(Server &server, Client &client)
{
    linger at_once = {1, 0};
    setsockopt(client.fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    end_connection(server, client);
}

void after(Server &server, Client &client, Clock::duration delay, size_t held,
           std::function<void(Client &)> action)
{
    held += TIMER_COST;
    client.timers++;
    client.held += held;
    server.timers.emplace(Clock::now() + delay, Timer{client.id, held, std::move(action)});
}

void send_message(Server &server, Client &client, const Header &header, std::string_view data)
{
    if (client.life != Life::OPEN)
        return;
    server.stats.messages_out++;
    if (client.cipher.state != CipherState::NONE)
        append_sealed(client, header, data);
    else if (append_message(client.output, header, data, server.options.compress_from))
        server.stats.compressed_out++;
    settle_later(server, client);
}

void send_raw(Server &server, Client &client, std::string_view data)
{
    if (client.life != Life::OPEN)
        return;
    server.stats.messages_out++;
    append_raw(client.output, data);
    settle_later(server, client);
}

void send_bytes(Server &server, Client &client, std::string_view bytes)
{
    if (client.life != Life::OPEN)
        return;
    client.output.append(bytes);
    settle_later(server, client);
}

void send_urgent(Server &, Client &client, unsigned char byte)
{
    if (client.life == Life::OPEN)
        send(client.fd, &byte, 1, MSG_OOB | MSG_NOSIGNAL);
}

static Frame frame_of(Server &server, Client &client, std::string_view stream)
{
    auto max_data = static_cast<size_t>(server.options.max_data);
    return client.cipher.state == CipherState::NONE ? next_frame(stream, max_data, server.plain)
                                                    : next_envelope(client, stream, max_data, server.plain);
}

static void take_message(Server &server, Client &client, const Frame &frame)
{
    server.stats.messages_in++;
    server.stats.compressed_in += frame.compressed;
    handle_message(server, client, frame);
}

// Takes the whole frames from the front of `stream`; returns how many bytes that is.
static size_t take_frames(Server &server, Client &client, std::string_view stream)
{
    size_t used = 0;
    client.paused = false;
    while (client.life == Life::OPEN) {
        if (congested(client)) {
            client.paused = true;
            break;
        }
        CipherState state = client.cipher.state;
        Frame frame = frame_of(server, client, stream.substr(used));
        if (frame.state == FrameState::INCOMPLETE)
            break;
        used += frame.size;
        const char *problem = frame.problem;
        if (frame.state == FrameState::COMPLETE && state == CipherState::NEGOTIATING)
            problem = negotiate(server, client, frame.data);
        else if (frame.state == FrameState::COMPLETE)
            take_message(server, client, frame);
        if (problem) {
            server.stats.broken++;
            say("client %d: %s; hung up", client.number, problem);
            end_connection(server, client);
        }
    }
    if (server.plain.capacity() > KEPT_CAPACITY)
        std::string().swap(server.plain);
    return used;
}

static void take_input(Server &server, Client &client)
{
    size_t used = take_frames(server, client, client.input);
    client.input.erase(0, used);
    if (client.input.empty() && client.input.capacity() > KEPT_CAPACITY)
        std::string().swap(client.input);
}

// Frames that are whole in what was just read are taken from there; only the rest is kept.
static void take_bytes(Server &server, Client &client, std::string_view bytes)
{
    if (client.life != Life::OPEN)
        return;
    if (!client.input.empty()) {
        client.input.append(bytes);
        take_input(server, client);
        return;
    }
    size_t used = take_frames(server, client, bytes);
    if (client.life == Life::OPEN)
        client.input.assign(bytes.substr(used));
}

static void read_client(Server &server, Client &client)
{
    static char bytes[READ_SIZE];
    for (int i = 0; i < READS_A_ROUND && !client.paused; i++) {
        ssize_t count = recv(client.fd, bytes, sizeof bytes, 0);
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1 && errno == EAGAIN)
            return;
        if (count <= 0) {
            end_connection(server, client);
            return;
        }
        take_bytes(server, client, {bytes, static_cast<size_t>(count)});
        if (client.life == Life::DEAD || count < static_cast<ssize_t>(sizeof bytes))
            return;
    }
}

void client_event(Server &server, Client &client, uint32_t events)
{
    if (client.life == Life::DEAD)
        return;
    settle_later(server, client);
    bool reading = client.life == Life::DRAINING || (client.life == Life::OPEN && !client.paused);
    if (reading && (events & (EPOLLIN | EPOLLHUP | EPOLLERR)))
        read_client(server, client);
    else if (events & (EPOLLHUP | EPOLLERR))
        end_connection(server, client);
}

static void write_output(Server &server, Client &client)
{
    while (unsent(client) > 0) {
        ssize_t count = send(client.fd, client.output.data() + client.written, unsent(client), MSG_NOSIGNAL);
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1 && errno == EAGAIN)
            break;
        if (count == -1) {
            end_connection(server, client);
            return;
        }
        client.written += static_cast<size_t>(count);
    }
    // What is gone makes room: all at once when nothing is left, otherwise when it is the larger half.
    if (client.written < client.output.size() / 2)
        return;
    client.output.erase(0, client.written);
    client.written = 0;
    if (client.output.empty() && client.output.capacity() > KEPT_CAPACITY)
        std::string().swap(client.output);
}

// Others hear of its end only here, where nobody has a hand on anything of the client's.
static void take_leave(Server &server, Client &client)
{
    if (client.gone)
        return;
    client.gone = true;
    client.conversations.clear();
    client.subscriptions.clear();
    abandon_transaction(server, client);
    abandon_sessions(server, client);
    abandon_notices(server, client);
    abandon_queues(server, client);
    abandon_keys(server, client);
}

static void settle_client(Server &server, Client &client)
{
    leave_if_done(server, client);
    if (client.life == Life::OPEN || client.life == Life::FLUSHING)
        write_output(server, client);
    if (client.life == Life::FLUSHING && unsent(client) == 0) {
        shutdown(client.fd, SHUT_WR);
        client.life = Life::DRAINING;
        std::string().swap(client.input);
        after(server, client, DRAIN_LIMIT, 0, [&server](Client &late) { end_connection(server, late); });
    }
    if (client.life == Life::OPEN && client.paused && !congested(client))
        take_input(server, client);
    if (client.life == Life::DEAD)
        return;

    uint32_t wanted = 0;
    if (client.life == Life::DRAINING || (client.life == Life::OPEN && !client.paused))
        wanted |= EPOLLIN;
    if (client.life != Life::DRAINING && unsent(client) > 0)
        wanted |= EPOLLOUT;
    if (wanted != client.interest)
        watch(server, Source::CLIENT, client.id, client.fd, wanted, client.interest);
}

void settle(Server &server)
{
    // Settling one may unsettle others, and itself; the list grows while it is walked.
    for (size_t i = 0; i < server.unsettled.size(); i++) {
        auto found = server.clients.find(server.unsettled[i]);
        if (found == server.clients.end())
            continue;
        Client &client = *found->second;
        client.settling = false;
        if (client.life != Life::DEAD)
            settle_client(server, client);
        if (client.life != Life::OPEN)
            take_leave(server, client);
        if (client.life == Life::DEAD && !client.settling)
            forget_client(server, client);
    }
    server.unsettled.clear();
}

}  // namespace clhsim
