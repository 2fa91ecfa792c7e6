// The server under test as a child process, and what talks to it: raw sockets with a codec of their own.
// Nothing here comes from the library or the server, so that three hands have to agree on every byte.
#ifndef TESTS_CLHSIM_SIMULATOR_H
#define TESTS_CLHSIM_SIMULATOR_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

enum : int32_t {
    MSG_TPSTART = 1,
    MSG_TPEND = 2,
    MSG_TPCALL = 3,
    MSG_TPACALL = 4,
    MSG_TPINIT = 21,
    STRING = 3,
    CARRAY = 4,
    HEADER_ONLY = 9,
};

struct Message {
    uint32_t magic = 0x90352082;
    int32_t seqno = 0;
    int32_t buftype = HEADER_ONLY;
    int32_t bufsize = 0;
    int32_t msgtype = 0;
    int32_t rcode = 0;
    int32_t srcid = 0;
    int32_t target = 0;
    int32_t prio = 0;
    int32_t value = 0;
    int32_t xid[3] = {};
    std::string subtype;
    std::string svcname;
    int32_t datalen = 0;
    int32_t flags = 0;
    int32_t cd = 0;
    int32_t sessid = 0;
    uint32_t xflags = 0;
    int32_t reserved = 0;
    int32_t callid[3] = {};
    std::string data;
    bool compressed = false;  // how it came
    bool raw = false;

    std::string text() const { return data.c_str(); }  // up to the NUL
};

Message call_of(const std::string &service, const std::string &data, int32_t msgtype = MSG_TPCALL,
                int32_t buftype = STRING, int32_t seqno = 1);
Message string_call(const std::string &service, const std::string &text);  // with the NUL that counts

void put(std::string &bytes, size_t offset, uint32_t word);
uint32_t get(const std::string &bytes, size_t offset);
std::string bytes_of(const Message &message);   // `datalen` is the data's
std::string header_of(const Message &message);  // 136 bytes with `datalen` as it stands
std::string compressed_bytes_of(const Message &message);
std::string compressed_frame_of(const std::string &plain);  // of whatever bytes

// A connection. Every wait has a limit, after which the test fails.
class Link {
  public:
    explicit Link(int descriptor) : fd(descriptor) {}
    Link(Link &&other) noexcept : fd(other.fd) { other.fd = -1; }
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link() { close(); }

    void send(const std::string &bytes);
    void send(const Message &message) { send(bytes_of(message)); }
    Message receive();
    Message exchange(const Message &message)
    {
        send(message);
        return receive();
    }
    Message start(const std::string &user = "", const std::string &client = "", const std::string &cred1 = "",
                  const std::string &cred2 = "");
    std::string read_bytes(size_t count);  // exactly so many, fewer only at the end of the stream
    std::string read_rest();               // up to the end of the stream
    bool ended() { return read_rest().empty(); }
    bool silent();  // nothing to read just now
    void close();

    int fd;
    bool reset = false;  // the stream ended in an error, not in order
};

class Simulator {
  public:
    explicit Simulator(std::vector<std::string> options = {});
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;
    ~Simulator();

    Link connect_tcp();
    Link connect_local();
    Link connect();                                // local if it listens there, otherwise TCP
    Link log_in();                                 // with a header-only start
    std::string command(const std::string &line);  // the whole answer, without its last newline
    int64_t stat(const std::string &name);
    std::string next_line();                         // of its standard output
    std::string line_with(const std::string &text);  // the next one that holds the text
    void signal(int number);
    int wait();  // the exit status, or -signal

    std::string directory;  // a fresh one, removed with all that is in it
    std::string control_path;
    int port = 0;
    pid_t pid = -1;

  private:
    std::string output;
    int output_fd = -1;
    int control = -1;
    bool local = false;
};

// Runs the program to its end.
struct Finished {
    int status = 0;
    std::string output;  // both streams
};
Finished run_clhsim(const std::vector<std::string> &options);

#endif
