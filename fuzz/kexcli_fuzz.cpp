// Key exchange and sealed messages, with and without a server that proves who it is, and the files of its
// keys. The first byte chooses the form and the message of a session that the rest stands for, the second how
// much of the true message is left in front of it, so that the checks behind the head are reached. Whatever
// it is, it has to be refused, and the session it hits must stay usable or be dead for good. A key file has
// to be refused unless it is just the line that it should be.
#include "kexcli.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

enum target {
    TO_SERVER_AT_START,
    TO_CLIENT_WAITING,
    TO_SERVER_WAITING,
    TO_SERVER_SEALED,
    TO_CLIENT_SEALED,
    SESSION_TARGETS,
    PUBLIC_FILE = SESSION_TARGETS,
    PRIVATE_FILE,
    TARGETS
};

// A pair that everybody knows.
const char PUBLIC_LINE[] =
    "kexcli-x25519-public de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f\n";
const char PRIVATE_LINE[] =
    "kexcli-x25519-private 5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb\n";

// A key file in memory, by a name that opens it anew each time.
struct KeyFile {
    int file = memfd_create("key", 0);
    const char *variable;

    KeyFile(const char *name, const std::string &text) : variable(name)
    {
        std::string path = "/proc/self/fd/" + std::to_string(file);
        if (file < 0 || fchmod(file, 0600) != 0 ||
            write(file, text.data(), text.size()) != (ssize_t)text.size() ||
            setenv(variable, path.c_str(), 1) != 0)
            abort();
    }
    KeyFile(const KeyFile &) = delete;
    KeyFile &operator=(const KeyFile &) = delete;
    ~KeyFile()
    {
        unsetenv(variable);
        close(file);
    }
};

int negotiate(void *handle, const std::string &in, std::string *out)
{
    std::vector<char> input(in.begin(), in.end()), output(KEXCLI_MAX_OUTPUT);
    int32_t length = 0;
    int result = _dh_negotiate(handle, input.data(), (int)in.size(), output.data(), &length);
    out->assign(output.data(), (size_t)length);
    return result;
}

std::string seal(void *handle, const std::string &message)
{
    std::vector<char> sealed(message.size() + KEXCLI_MAX_OVERHEAD);
    int length = _dh_encrypt(handle, sealed.data(), message.data(), (int)message.size());
    return length < 0 ? "" : std::string(sealed.data(), (size_t)length);
}

std::string unseal(void *handle, const std::string &sealed)
{
    std::vector<char> source(sealed.begin(), sealed.end()), message(sealed.size());
    int length = _dh_decrypt(handle, message.data(), source.data(), (int)sealed.size());
    return length <= 0 ? "" : std::string(message.data(), (size_t)length);
}

void expect(bool holds)
{
    if (!holds)
        abort();
}

// The bytes of the fuzzer behind the first `keep` of the true message.
std::string spoil(const std::string &truth, size_t keep, const std::string &bytes)
{
    return truth.substr(0, keep < truth.size() ? keep : truth.size()) + bytes;
}

// Hands spoilt bytes to a side in the exchange. A failure has to be final.
void expect_end(void *handle, const std::string &spoilt, const std::string &truth)
{
    std::string out;
    if (spoilt == truth || spoilt.empty())
        return;
    expect(negotiate(handle, spoilt, &out) == KEXCLI_FAILURE && out.empty());
    expect(negotiate(handle, truth, &out) == KEXCLI_FAILURE && seal(handle, "x").empty());
}

void expect_refusal(void *receiver, void *sender, size_t keep, const std::string &bytes)
{
    std::string truth = seal(sender, "a message of some length"), spoilt = spoil(truth, keep, bytes);
    if (spoilt != truth)
        expect(unseal(receiver, spoilt).empty());
    expect(unseal(receiver, truth) == "a message of some length");
}

void run(void *client, void *server, int target, size_t keep, const std::string &bytes)
{
    std::string hello, answer, finish, out;
    expect(negotiate(client, "", &hello) == KEXCLI_EXCHANGE);
    if (target == TO_SERVER_AT_START) {
        // A hello with any key that isn't of small order opens an exchange, so only the memory is looked at.
        negotiate(server, spoil(hello, keep, bytes), &out);
        return;
    }
    expect(negotiate(server, hello, &answer) == KEXCLI_EXCHANGE);
    if (target == TO_CLIENT_WAITING) {
        expect_end(client, spoil(answer, keep, bytes), answer);
        return;
    }
    expect(negotiate(client, answer, &finish) == KEXCLI_SEND_LAST);
    if (target == TO_SERVER_WAITING) {
        expect_end(server, spoil(finish, keep, bytes), finish);
        return;
    }
    expect(negotiate(server, finish, &out) == KEXCLI_FINISHED);
    if (target == TO_SERVER_SEALED)
        expect_refusal(server, client, keep, bytes);
    else
        expect_refusal(client, server, keep, bytes);
}

void run_session(int target, size_t keep, const std::string &bytes)
{
    void *client = _dh_init_sess(KEXCLI_MODE_CLIENT, -1), *server = _dh_init_sess(KEXCLI_MODE_SERVER, -1);
    expect(client != nullptr && server != nullptr);
    run(client, server, target, keep, bytes);
    _dh_close_sess(client);
    _dh_close_sess(server);
}

bool is_key_line(const std::string &text, const std::string &model)
{
    size_t begin = model.find(' ') + 1;
    std::string line = !text.empty() && text.back() == '\n' ? text.substr(0, text.size() - 1) : text;
    return line.size() + 1 == model.size() && line.compare(0, begin, model, 0, begin) == 0 &&
           strspn(line.c_str() + begin, "0123456789abcdefABCDEF") == line.size() - begin;
}

void run_file(int target, size_t keep, const std::string &bytes)
{
    bool is_public = target == PUBLIC_FILE;
    const char *model = is_public ? PUBLIC_LINE : PRIVATE_LINE;
    std::string text = spoil(model, keep, bytes);
    KeyFile file(is_public ? KEXCLI_PEER_KEY : KEXCLI_OWN_KEY, text);
    void *session = _dh_init_sess(is_public ? KEXCLI_MODE_CLIENT : KEXCLI_MODE_SERVER, -1);
    expect((session != nullptr) == is_key_line(text, model));
    _dh_close_sess(session);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    int target = data[0] % TARGETS;
    size_t keep = data[1];
    std::string bytes((const char *)data + 2, size - 2);
    if (target >= SESSION_TARGETS) {
        run_file(target, keep, bytes);
    } else if (data[0] / TARGETS % 2 == 0) {
        run_session(target, keep, bytes);
    } else {
        KeyFile own(KEXCLI_OWN_KEY, PRIVATE_LINE), peer(KEXCLI_PEER_KEY, PUBLIC_LINE);
        run_session(target, keep, bytes);
    }
    return 0;
}
