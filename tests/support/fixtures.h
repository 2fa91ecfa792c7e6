// Fixtures: a session against the scripted peer, a block of variables wired to a bare connection, and the
// library's log caught in a file.
#ifndef VORN_TESTS_SUPPORT_FIXTURES_H
#define VORN_TESTS_SUPPORT_FIXTURES_H

#include <string>

#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "support/peer.h"
#include "wire/msgheader.h"

// The log lines of this process, from the moment of its making. Must be made before the first line is
// written.
struct LogFile {
    LogFile();
    ~LogFile();
    std::string text() const;
    bool has(const std::string &part) const { return text().find(part) != std::string::npos; }
    int lines() const;

    std::string directory;
};

// True once so many bytes wait to be read on the socket, or an urgent byte waits.
bool wait_for_bytes(int fd, size_t least);
bool wait_for_urgent(int fd);

// A connected pair of TCP sockets on this machine, close-on-exec and without delay.
void tcp_pair(int ends[2]);

// A clean environment: none of the library's variables set, but VORN_HOST_ADDR, which names the peer.
struct SessionTest : testing::Test {
    LogFile log;
    Peer peer;

    SessionTest();

    // Opens a session on this thread, with the peer's usual start reply; the peer's conversation stands at
    // the first message behind it. With `multiple` in the multi-context mode (needed for threads that share).
    bool start(const wire::start_reply &reply = {}, bool multiple = false);
    wthr_var *block() const;
    // For other threads of a multi-context process: puts them on the context of the test's thread.
    int context() const;
};

// One block of variables, bound to this thread, whose connection is one end of a TCP pair: for single
// internal functions, with no start exchange. The acall and conversation tables have 8 rows; `started` is 1.
struct WireTest : testing::Test {
    LogFile log;
    Conn peer;  // the other end
    wthr_var *block = nullptr;

    WireTest();
    ~WireTest() override;
    int error() const { return get_tperrno(); }
};

// A message as the library holds it: header in host order and data, in one block from malloc with the room
// that a typed buffer has. The caller frees it, or gives it away.
msg_header *new_message(int32_t msgtype, const std::string &data = "", int32_t room = -1);
std::string data_of(msg_header *message);  // the `datalen` bytes

#endif
