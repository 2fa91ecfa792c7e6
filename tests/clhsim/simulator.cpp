#include "simulator.h"

#include "sqz.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

static constexpr int LIMIT_MS = 30000;

Message call_of(const std::string &service, const std::string &data, int32_t msgtype, int32_t buftype,
                int32_t seqno)
{
    Message message;
    message.msgtype = msgtype;
    message.seqno = seqno;
    message.buftype = buftype;
    message.svcname = service;
    message.data = data;
    message.bufsize = data.size() > 1024 ? static_cast<int32_t>(data.size()) : 1024;
    return message;
}

Message string_call(const std::string &service, const std::string &text)
{
    return call_of(service, text + std::string(1, '\0'));
}

void put(std::string &bytes, size_t offset, uint32_t word)
{
    for (size_t i = 0; i < 4; i++)
        bytes.at(offset + i) = static_cast<char>(word >> 8 * (3 - i) & 0xff);
}

uint32_t get(const std::string &bytes, size_t offset)
{
    uint32_t word = 0;
    for (size_t i = 0; i < 4; i++)
        word = word << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    return word;
}

std::string header_of(const Message &m)
{
    std::string bytes(136, '\0');
    put(bytes, 0, m.magic);
    const int32_t front[] = {m.seqno, m.buftype, m.bufsize, m.msgtype, m.rcode,
                             m.srcid, m.target,  m.prio,    m.value};
    for (size_t i = 0; i < 9; i++)
        put(bytes, 4 + 4 * i, static_cast<uint32_t>(front[i]));
    for (size_t i = 0; i < 3; i++) {
        put(bytes, 40 + 4 * i, static_cast<uint32_t>(m.xid[i]));
        put(bytes, 124 + 4 * i, static_cast<uint32_t>(m.callid[i]));
    }
    bytes.replace(52, std::min<size_t>(m.subtype.size(), 16), m.subtype, 0, 16);
    bytes.replace(68, std::min<size_t>(m.svcname.size(), 32), m.svcname, 0, 32);
    const int32_t back[] = {m.datalen, m.flags, m.cd, m.sessid, static_cast<int32_t>(m.xflags), m.reserved};
    for (size_t i = 0; i < 6; i++)
        put(bytes, 100 + 4 * i, static_cast<uint32_t>(back[i]));
    return bytes;
}

std::string bytes_of(const Message &message)
{
    Message whole = message;
    whole.datalen = static_cast<int32_t>(message.data.size());
    return header_of(whole) + message.data;
}

std::string compressed_frame_of(const std::string &plain)
{
    std::string packed(plain.size() + 1024, '\0');
    int64_t length = static_cast<int64_t>(packed.size());
    EXPECT_EQ(_vorn_compress(packed.data(), &length, plain.data(), static_cast<int64_t>(plain.size())), 0);
    std::string frame(16, '\0');
    put(frame, 0, 99999999);
    put(frame, 4, static_cast<uint32_t>(length));
    put(frame, 8, static_cast<uint32_t>(plain.size()));
    return frame + packed.substr(0, static_cast<size_t>(length));
}

std::string compressed_bytes_of(const Message &message)
{
    return compressed_frame_of(bytes_of(message));
}

static Message message_of(const std::string &bytes)
{
    Message m;
    auto word = [&](size_t offset) { return static_cast<int32_t>(get(bytes, offset)); };
    m.magic = get(bytes, 0);
    int32_t *front[] = {&m.seqno, &m.buftype, &m.bufsize, &m.msgtype, &m.rcode,
                        &m.srcid, &m.target,  &m.prio,    &m.value};
    for (size_t i = 0; i < 9; i++)
        *front[i] = word(4 + 4 * i);
    for (size_t i = 0; i < 3; i++) {
        m.xid[i] = word(40 + 4 * i);
        m.callid[i] = word(124 + 4 * i);
    }
    m.subtype = bytes.substr(52, 16).c_str();
    m.svcname = bytes.substr(68, 32).c_str();
    int32_t *back[] = {&m.datalen, &m.flags, &m.cd, &m.sessid};
    for (size_t i = 0; i < 4; i++)
        *back[i] = word(100 + 4 * i);
    m.xflags = get(bytes, 116);
    m.reserved = word(120);
    m.data = bytes.substr(136);
    return m;
}

static bool wait_for(int fd, short events, int limit_ms)
{
    pollfd waiting = {fd, events, 0};
    int result = 0;
    do
        result = poll(&waiting, 1, limit_ms);
    while (result == -1 && errno == EINTR);
    return result == 1;
}

void Link::send(const std::string &bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        ssize_t count = write(fd, bytes.data() + sent, bytes.size() - sent);
        if (count <= 0)
            return;  // the server hung up; what is read next shows it
        sent += static_cast<size_t>(count);
    }
}

std::string Link::read_bytes(size_t count)
{
    std::string bytes(count, '\0');
    size_t got = 0;
    while (got < count) {
        if (!wait_for(fd, POLLIN, LIMIT_MS)) {
            ADD_FAILURE() << "nothing came, " << count - got << " bytes missing";
            break;
        }
        ssize_t result = read(fd, bytes.data() + got, count - got);
        reset = reset || result < 0;
        if (result <= 0)
            break;
        got += static_cast<size_t>(result);
    }
    bytes.resize(got);
    return bytes;
}

std::string Link::read_rest()
{
    std::string bytes;
    for (;;) {
        std::string more = read_bytes(1);
        if (more.empty())
            return bytes;
        bytes += more;
    }
}

bool Link::silent()
{
    return !wait_for(fd, POLLIN, 0);
}

Message Link::receive()
{
    std::string head = read_bytes(16);
    if (head.size() < 16) {
        ADD_FAILURE() << "the stream ended in front of a message";
        return {};
    }
    Message message;
    if (get(head, 0) == 6666) {
        size_t length = get(head, 4);
        message.raw = true;
        message.data = head.substr(8, length);
        if (length > 8)
            message.data += read_bytes(length - 8);
        return message;
    }
    if (get(head, 0) == 99999999) {
        EXPECT_EQ(get(head, 8), 0u);
        std::string packed = read_bytes(get(head, 4));
        std::string plain(get(head, 12), '\0');
        int64_t length = static_cast<int64_t>(plain.size());
        EXPECT_EQ(_vorn_uncompress(plain.data(), &length, packed.data(), static_cast<int64_t>(packed.size())),
                  0);
        EXPECT_EQ(length, static_cast<int64_t>(plain.size()));
        message = message_of(plain);
        message.compressed = true;
    } else {
        std::string bytes = head + read_bytes(120);
        if (bytes.size() < 136) {
            ADD_FAILURE() << "the stream ended in a header";
            return {};
        }
        message = message_of(bytes + read_bytes(get(bytes, 100)));
    }
    EXPECT_EQ(message.magic, 0x90352082u);
    EXPECT_EQ(message.datalen, static_cast<int32_t>(message.data.size()));
    EXPECT_GE(message.bufsize, message.datalen);
    return message;
}

Message Link::start(const std::string &user, const std::string &client, const std::string &cred1,
                    const std::string &cred2)
{
    Message start;
    start.msgtype = MSG_TPSTART;
    start.svcname = "_tpstart";
    if (!user.empty()) {
        start.buftype = 5;
        start.data.assign(76, '\0');
        const std::string *fields[] = {&user, &client, &cred1, &cred2};
        for (size_t i = 0; i < 4; i++)
            start.data.replace(18 * i, std::min<size_t>(fields[i]->size(), 18), *fields[i], 0, 18);
    }
    return exchange(start);
}

void Link::close()
{
    if (fd != -1)
        ::close(fd);
    fd = -1;
}

static int status_of(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

static pid_t spawn(const std::vector<std::string> &options, int output, bool both_streams)
{
    std::vector<char *> words;
    std::string program = CLHSIM_PATH;
    words.push_back(program.data());
    std::vector<std::string> copy = options;
    for (std::string &option : copy)
        words.push_back(option.data());
    words.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output, STDOUT_FILENO);
    if (both_streams)
        dup2(output, STDERR_FILENO);
    execv(words[0], words.data());
    _exit(127);
}

static bool names(const std::vector<std::string> &options, const std::string &name)
{
    for (const std::string &option : options) {
        if (option == name)
            return true;
    }
    return false;
}

Simulator::Simulator(std::vector<std::string> options)
{
    ::signal(SIGPIPE, SIG_IGN);
    char name[] = "/tmp/clhsim-test-XXXXXX";
    directory = mkdtemp(name);
    control_path = directory + "/control";
    for (std::string &option : options) {
        if (option == "DIR")
            option = directory;
    }
    local = names(options, "--local");
    if (!names(options, "--control"))
        options.insert(options.end(), {"--control", control_path});
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    pid = spawn(options, ends[1], false);
    ::close(ends[1]);
    output_fd = ends[0];
    if (!local || names(options, "--port")) {
        std::string line = line_with("listening on 127.0.0.1:");
        port = atoi(line.substr(line.rfind(':') + 1).c_str());
    } else {
        line_with("listening on");
    }
}

static void remove_directory(const std::string &path)
{
    DIR *entries = opendir(path.c_str());
    if (!entries)
        return;
    while (dirent *entry = readdir(entries)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            ::remove((path + "/" + name).c_str());
    }
    closedir(entries);
    rmdir(path.c_str());
}

Simulator::~Simulator()
{
    if (control != -1)
        ::close(control);
    if (pid > 0) {
        // Whatever the test did to it, the server must still be there, and end in order.
        kill(pid, SIGTERM);
        EXPECT_EQ(wait(), 0);
    }
    ::close(output_fd);
    remove_directory(directory);
}

static int connect_path(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << path;
    return fd;
}

Link Simulator::connect_tcp()
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return Link(fd);
}

Link Simulator::connect_local()
{
    return Link(connect_path(directory + "/cllrcad"));
}

Link Simulator::connect()
{
    return local ? connect_local() : connect_tcp();
}

Link Simulator::log_in()
{
    Link link = connect();
    EXPECT_EQ(link.start().msgtype, 1001);
    return link;
}

std::string Simulator::command(const std::string &line)
{
    if (control == -1)
        control = connect_path(control_path);
    Link link(control);
    link.send(line + "\n");
    std::string answer;
    for (;;) {
        std::string text;
        do {
            std::string byte = link.read_bytes(1);
            if (byte.empty()) {
                ADD_FAILURE() << "no answer to " << line;
                link.fd = -1;
                return answer;
            }
            text += byte;
        } while (text.back() != '\n');
        answer += text;
        if (text.rfind("  ", 0) != 0)
            break;
    }
    link.fd = -1;  // stays open for the next command
    answer.pop_back();
    return answer;
}

int64_t Simulator::stat(const std::string &name)
{
    std::string answer = "\n" + command("stats");
    std::string wanted = "\n  " + name + " ";
    size_t at = answer.find(wanted);
    return at == std::string::npos ? -1 : atoll(answer.c_str() + at + wanted.size());
}

std::string Simulator::next_line()
{
    size_t end = 0;
    while ((end = output.find('\n')) == std::string::npos) {
        char bytes[4096];
        if (!wait_for(output_fd, POLLIN, LIMIT_MS)) {
            ADD_FAILURE() << "no line came";
            return "";
        }
        ssize_t count = read(output_fd, bytes, sizeof bytes);
        if (count <= 0)
            return "";
        output.append(bytes, static_cast<size_t>(count));
    }
    std::string line = output.substr(0, end);
    output.erase(0, end + 1);
    return line;
}

std::string Simulator::line_with(const std::string &text)
{
    for (;;) {
        std::string line = next_line();
        if (line.empty()) {
            ADD_FAILURE() << "no line with " << text;
            return "";
        }
        if (line.find(text) != std::string::npos)
            return line;
    }
}

void Simulator::signal(int number)
{
    kill(pid, number);
}

int Simulator::wait()
{
    int status = status_of(pid);
    pid = -1;
    return status;
}

Finished run_clhsim(const std::vector<std::string> &options)
{
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    pid_t pid = spawn(options, ends[1], true);
    ::close(ends[1]);
    Finished run;
    run.output = Link(ends[0]).read_rest();
    run.status = status_of(pid);
    return run;
}
