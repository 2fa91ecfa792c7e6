// Listening, and the one loop. An event carries the source's kind and, for clients and controllers, its id;
// an id is never used twice, so an event for somebody who went away in the same round finds nobody.
#include "server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace clhsim {

constexpr int BACKLOG = 1024;
constexpr int SOURCE_SHIFT = 56;

void say(const char *format, ...)
{
    fputs("clhsim: ", stdout);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    fputc('\n', stdout);
    fflush(stdout);
}

std::string printable(std::string_view text)
{
    std::string shown;
    for (unsigned char c : text) {
        if (c >= 0x20 && c != 0x7f) {
            shown += static_cast<char>(c);
            continue;
        }
        char escape[8];
        snprintf(escape, sizeof escape, "\\x%02x", c);
        shown += escape;
    }
    return shown;
}

void watch(Server &server, Source source, uint64_t id, int fd, uint32_t events, uint32_t &interest)
{
    epoll_event event = {};
    event.events = events;
    event.data.u64 = static_cast<uint64_t>(source) << SOURCE_SHIFT | id;
    if (epoll_ctl(server.epoll_fd, EPOLL_CTL_MOD, fd, &event) == -1 && errno == ENOENT)
        epoll_ctl(server.epoll_fd, EPOLL_CTL_ADD, fd, &event);
    interest = events;
}

static std::string system_problem(const std::string &what)
{
    return what + ": " + strerror(errno);
}

static bool listen_tcp(Server &server, std::string &problem)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server.options.port));
    if (inet_pton(AF_INET, server.options.bind_address.c_str(), &address.sin_addr) != 1) {
        problem = "--bind: no IPv4 address";
        return false;
    }
    server.tcp_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(server.tcp_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t size = sizeof address;
    if (server.tcp_fd == -1 ||
        bind(server.tcp_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 ||
        listen(server.tcp_fd, BACKLOG) == -1 ||
        getsockname(server.tcp_fd, reinterpret_cast<sockaddr *>(&address), &size) == -1) {
        problem = system_problem("can't listen on port " + std::to_string(server.options.port));
        return false;
    }
    server.tcp_port = ntohs(address.sin_port);
    return true;
}

// A socket that nobody listens on any more is left over from a server that was killed, and makes way.
static bool remove_stale_socket(const sockaddr_un &address)
{
    struct stat status;
    if (lstat(address.sun_path, &status) == -1)
        return true;
    if (!S_ISSOCK(status.st_mode))
        return false;
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool alive = connect(probe, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
                 errno != ECONNREFUSED;
    close(probe);
    return !alive && unlink(address.sun_path) == 0;
}

static int listen_local(const std::string &path, mode_t mode, std::string &made, std::string &problem)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        problem = path + ": path too long for a local socket";
        return -1;
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    if (!remove_stale_socket(address)) {
        problem = path + ": in use";
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    mode_t mask = umask(static_cast<mode_t>(~mode & 0777));
    bool bound = fd != -1 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    umask(mask);
    if (bound)
        made = path;
    if (!bound || listen(fd, BACKLOG) == -1) {
        problem = system_problem("can't listen on " + path);
        if (fd != -1)
            close(fd);
        return -1;
    }
    return fd;
}

static bool open_listeners(Server &server, std::string &problem)
{
    const Options &options = server.options;
    if (options.port >= 0 && !listen_tcp(server, problem))
        return false;
    if (!options.local_directory.empty()) {
        mkdir(options.local_directory.c_str(), 0755);
        server.local_fd =
            listen_local(options.local_directory + "/cllrcad", 0777, server.local_path, problem);
        if (server.local_fd == -1)
            return false;
    }
    if (!options.control_path.empty()) {
        // Whoever may write here may do anything to the server: the owner alone.
        server.control_fd = listen_local(options.control_path, 0700, server.control_path, problem);
        if (server.control_fd == -1)
            return false;
    }
    return true;
}

static void watch_listeners(Server &server, uint32_t events)
{
    uint32_t unused = 0;
    if (server.tcp_fd != -1)
        watch(server, Source::TCP_LISTENER, 0, server.tcp_fd, events, unused);
    if (server.local_fd != -1)
        watch(server, Source::LOCAL_LISTENER, 0, server.local_fd, events, unused);
    if (server.control_fd != -1)
        watch(server, Source::CONTROL_LISTENER, 0, server.control_fd, events, unused);
}

static void tell_ready(Server &server)
{
    if (server.control_fd != -1)
        say("control on %s", server.options.control_path.c_str());
    if (server.local_fd != -1)
        say("listening on %s", server.local_path.c_str());
    if (server.tcp_fd != -1)
        say("listening on %s:%d", server.options.bind_address.c_str(), server.tcp_port);
    if (server.options.ready_fd == -1)
        return;
    dprintf(server.options.ready_fd, "%d\n", server.tcp_port);
    if (server.options.ready_fd > STDERR_FILENO)
        close(server.options.ready_fd);
}

bool open_server(Server &server, std::string &problem)
{
    signal(SIGPIPE, SIG_IGN);
    rlimit files = {};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    server.signal_fd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
    server.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (server.signal_fd == -1 || server.epoll_fd == -1) {
        problem = system_problem("can't set up the event loop");
        return false;
    }
    if (!server.options.log_file.empty()) {
        server.log = fopen(server.options.log_file.c_str(), "ae");
        if (!server.log) {
            problem = system_problem(server.options.log_file);
            return false;
        }
    }
    if (server.options.encipher && !check_cipher()) {
        problem =
            "--encipher: no session of the cipher can be had; is the file of KEXCLI_OWN_KEY a private key?";
        return false;
    }
    server.next_number = server.options.first_client;
    if (!open_queues(server, problem))
        return false;
    if (!open_message_service(server)) {
        problem = "the store gives no identities for messages";
        return false;
    }
    if (!open_counts(server.counts, server.options.count_file)) {
        problem = system_problem(server.options.count_file);
        return false;
    }
    if (!open_listeners(server, problem))
        return false;
    uint32_t unused = 0;
    watch(server, Source::SIGNALS, 0, server.signal_fd, EPOLLIN, unused);
    watch_listeners(server, EPOLLIN);
    tell_ready(server);
    return true;
}

// Who connects from now on is refused, by the system or because nobody is there.
void close_listeners(Server &server)
{
    for (int *fd : {&server.tcp_fd, &server.local_fd}) {
        if (*fd != -1)
            close(*fd);
        *fd = -1;
    }
}

void resume_listening(Server &server)
{
    if (!server.listening_paused)
        return;
    server.listening_paused = false;
    watch_listeners(server, EPOLLIN);
}

static void accept_all(Server &server, Source source, int listener)
{
    for (;;) {
        int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd == -1 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)) {
            // The connection stays in the backlog, and the listener would stay ready: wait until one goes
            // away.
            server.listening_paused = true;
            watch_listeners(server, 0);
        }
        if (fd == -1 && errno != EINTR && errno != ECONNABORTED)
            return;
        if (fd == -1)
            continue;
        if (source == Source::CONTROL_LISTENER) {
            add_controller(server, fd);
            continue;
        }
        int on = 1;
        if (source == Source::TCP_LISTENER)
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        add_client(server, fd, source == Source::LOCAL_LISTENER);
    }
}

static void take_event(Server &server, const epoll_event &event)
{
    uint64_t id = event.data.u64 & ((uint64_t{1} << SOURCE_SHIFT) - 1);
    switch (auto source = static_cast<Source>(event.data.u64 >> SOURCE_SHIFT)) {
    case Source::SIGNALS:
        server.stopping = true;
        break;
    case Source::TCP_LISTENER:
        accept_all(server, source, server.tcp_fd);
        break;
    case Source::LOCAL_LISTENER:
        accept_all(server, source, server.local_fd);
        break;
    case Source::CONTROL_LISTENER:
        accept_all(server, source, server.control_fd);
        break;
    case Source::CLIENT:
        if (auto client = server.clients.find(id); client != server.clients.end())
            client_event(server, *client->second, event.events);
        break;
    case Source::CONTROLLER:
        if (auto controller = server.controllers.find(id); controller != server.controllers.end())
            controller_event(server, *controller->second, event.events);
        break;
    }
}

static int milliseconds_to_next_timer(const Server &server)
{
    if (server.timers.empty())
        return -1;
    auto left =
        std::chrono::ceil<std::chrono::milliseconds>(server.timers.begin()->first - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 3600 * 1000));
}

static void run_timers(Server &server)
{
    if (server.timers.empty())
        return;
    Clock::time_point now = Clock::now();
    while (!server.timers.empty() && server.timers.begin()->first <= now) {
        Timer timer = std::move(server.timers.begin()->second);
        server.timers.erase(server.timers.begin());
        auto found = server.clients.find(timer.client);
        if (found == server.clients.end() && timer.client != server.nobody.id)
            continue;
        Client &client = found == server.clients.end() ? server.nobody : *found->second;
        client.timers--;
        client.held -= timer.held;
        timer.action(client);
    }
}

void run_server(Server &server)
{
    epoll_event events[256];
    while (!server.stopping) {
        int count = epoll_wait(server.epoll_fd, events, 256, milliseconds_to_next_timer(server));
        for (int i = 0; i < count; i++)
            take_event(server, events[i]);
        run_timers(server);
        settle(server);
    }
}

void close_server(Server &server)
{
    for (auto &[id, client] : server.clients) {
        close(client->fd);
        end_cipher(*client);
    }
    for (auto &[id, controller] : server.controllers)
        close(controller->fd);
    for (int fd : {server.tcp_fd, server.local_fd, server.control_fd, server.signal_fd, server.epoll_fd}) {
        if (fd != -1)
            close(fd);
    }
    for (const std::string &path : {server.local_path, server.control_path}) {
        if (!path.empty())
            unlink(path.c_str());
    }
    close_store(server.queues.store);
    close_counts(server.counts);
    if (server.log)
        fclose(server.log);
}

}  // namespace clhsim
