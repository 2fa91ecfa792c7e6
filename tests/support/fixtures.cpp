#include "support/fixtures.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "tx/tx.h"
#include "vorn/context.h"
#include "vorn/flags.h"
#include "vorn/session.h"

static std::string log_name(const LogFile &log)
{
    return log.directory + "/log." + std::to_string(getpid());
}

LogFile::LogFile()
{
    char made[] = "/tmp/vorn-test-XXXXXX";
    if (mkdtemp(made) == nullptr)
        abort();
    directory = made;
    setenv("VORN_DEBUG", (directory + "/log").c_str(), 1);
    unsetenv("VORN_ERR_MSG");
}

LogFile::~LogFile()
{
    unlink(log_name(*this).c_str());
    rmdir(directory.c_str());
}

std::string LogFile::text() const
{
    std::ifstream file(log_name(*this));
    std::stringstream all;
    all << file.rdbuf();
    return all.str();
}

int LogFile::lines() const
{
    std::string all = text();
    return (int)std::count(all.begin(), all.end(), '\n');
}

void tcp_pair(int ends[2])
{
    Peer door;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons((uint16_t)door.port);
    ends[0] = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(ends[0], (sockaddr *)&address, sizeof address) != 0 || !door.accept()) {
        perror("tcp_pair");
        abort();
    }
    ends[1] = door.fd;
    door.fd = -1;
    int on = 1;
    for (int i = 0; i < 2; i++)
        setsockopt(ends[i], IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool wait_for_bytes(int fd, size_t least)
{
    // A peek looks past an urgent byte, where FIONREAD stops at it.
    return faults::eventually([&] {
        static char bytes[65536];
        return recvfrom(fd, bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT, nullptr, nullptr) >= (ssize_t)least;
    });
}

bool wait_for_urgent(int fd)
{
    pollfd one = {fd, POLLPRI, 0};
    return poll(&one, 1, faults::PATIENCE_SECONDS * 1000) == 1;
}

static void clear_environment()
{
    for (const char *name : {"VORN_HOST_ADDR", "VORN_HOST_PORT", "VORN_BACKUP_ADDR", "VORN_BACKUP_PORT",
                             "VORN_CONNECT_TIMEOUT", "VORN_STRING_NULL", "VORN_SEMANTICS", "ULOGPFX", "ULOG",
                             "VORN_PATHDIR", "VORNDIR", "SDLFILE64", "SDLFILE", "FDLFILE"})
        unsetenv(name);
    signal(SIGPIPE, SIG_IGN);
}

SessionTest::SessionTest()
{
    clear_environment();
    setenv("VORN_HOST_ADDR", peer.address().c_str(), 1);
}

// A start record without a name; the caller frees it.
static msg_header *new_start_message(int32_t flags)
{
    msg_header *message = new_message(0, std::string(sizeof(TPSTART_T), '\0'));
    message->buftype = BUF_START;
    ((TPSTART_T *)message_data(message))->flags = flags;
    return message;
}

bool SessionTest::start(const wire::start_reply &reply, bool multiple)
{
    peer.play([&] { peer.accept_start(reply); });
    msg_header *record = multiple ? new_start_message(TPMULTICONTEXTS) : nullptr;
    int result = tpstart(record != nullptr ? (TPSTART_T *)message_data(record) : nullptr);
    free(record);
    peer.done();
    EXPECT_EQ(result, 0) << "tpstart failed with " << get_tperrno();
    return result == 0;
}

wthr_var *SessionTest::block() const
{
    return current_block();
}

int SessionTest::context() const
{
    int number = 0;
    tpgetctxt(&number, 0);
    return number;
}

WireTest::WireTest()
{
    clear_environment();
    _thread_lock();
    if (_init_thrtbl() < 0)
        abort();
    wthr_elem *row = _get_idle_wthr_ptr();
    block = _wthr_var_init(row);
    bind_row(row);
    _thread_unlock();
    int ends[2];
    tcp_pair(ends);
    block->clhfd = ends[0];
    block->old_clhfd = block->new_clhfd = -1;
    block->started = 1;
    block->unsol_mode = UNSOL_MODE_HANDLER;
    peer.fd = ends[1];
    _make_txinfo(block);
    _init_acall(8, block);
    _init_conv(8, block);
    _init_unsol(0, block);
    set_tperrno(0);
}

WireTest::~WireTest()
{
    for (int fd : {(int)block->clhfd, (int)block->old_clhfd, (int)block->new_clhfd})
        if (fd > 2)
            close(fd);
    _init_acall(-1, block);
    _init_conv(-1, block);
    _init_qcall(-1, block);
    _init_unsol(1, block);
    _txinfo_end(block);
    _context_end();
}

msg_header *new_message(int32_t msgtype, const std::string &data, int32_t room)
{
    int32_t size = std::max(room, (int32_t)data.size());
    msg_header *message = (msg_header *)calloc(1, (size_t)size + BLOCK_OVERHEAD + 8);
    message->magic = MESSAGE_MAGIC;
    message->msgtype = msgtype;
    message->buftype = data.empty() && room < 0 ? BUF_HEADER : BUF_STRING;
    message->bufsize = size;
    message->datalen = (int32_t)data.size();
    message->xflags = XFLAG_TRAILER_ROOM;
    memcpy(message_data(message), data.data(), data.size());
    return message;
}

std::string data_of(msg_header *message)
{
    return std::string(message_data(message), (size_t)std::max(0, message->datalen));
}
