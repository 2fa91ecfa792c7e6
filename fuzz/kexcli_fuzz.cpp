// Key exchange and sealed messages. The first byte chooses the message of a session that the rest stands for,
// the second how much of the true message is left in front of it, so that the checks behind the head are
// reached. Whatever it is, it has to be refused, and the session it hits must stay usable or be dead for
// good.
#include "kexcli.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <vector>

namespace {

enum target {
    TO_SERVER_AT_START,
    TO_CLIENT_WAITING,
    TO_SERVER_WAITING,
    TO_SERVER_SEALED,
    TO_CLIENT_SEALED,
    TARGETS
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    void *client = _dh_init_sess(KEXCLI_MODE_CLIENT, -1), *server = _dh_init_sess(KEXCLI_MODE_SERVER, -1);
    expect(client != nullptr && server != nullptr);
    run(client, server, data[0] % TARGETS, data[1], std::string((const char *)data + 2, size - 2));
    _dh_close_sess(client);
    _dh_close_sess(server);
    return 0;
}
