// Both ends of an enciphered session, in one process.
#ifndef VORN_TESTS_PROVIDERS_KEX_PAIR_H
#define VORN_TESTS_PROVIDERS_KEX_PAIR_H

#include "kexcli.h"

#include "guarded.h"

#include <gtest/gtest.h>
#include <string>

// One step of the exchange, into guarded memory of just the room that a caller has to give.
inline int negotiate(void *handle, const std::string &in, std::string *out)
{
    Guarded input(in), output(KEXCLI_MAX_OUTPUT);
    int32_t length = 0x55555555;
    int result = _dh_negotiate(handle, input.data, (int)in.size(), output.data, &length);
    EXPECT_GE(length, 0);
    EXPECT_LE(length, KEXCLI_MAX_OUTPUT);
    *out = output.text(length < 0 || length > KEXCLI_MAX_OUTPUT ? 0 : (size_t)length);
    return result;
}

// The sealed message, or "" if it was refused. The room is what the session's send path gives.
inline std::string seal(void *handle, const std::string &message)
{
    Guarded source(message), destination(message.size() + KEXCLI_MAX_OVERHEAD);
    int result = _dh_encrypt(handle, destination.data, source.data, (int)message.size());
    if (result < 0)
        return "";
    EXPECT_LE((size_t)result, message.size() + KEXCLI_MAX_OVERHEAD);
    return destination.text((size_t)result);
}

// The message, or "" if it was refused; then nothing of it may be left behind. The room is the sealed length:
// less than the receive path gives, and all that is promised to suffice.
inline std::string unseal(void *handle, const std::string &sealed)
{
    Guarded source(sealed), destination(sealed.size());
    memset(destination.data, 0, sealed.size());
    int result = _dh_decrypt(handle, destination.data, source.data, (int)sealed.size());
    EXPECT_GE(result, 0);
    EXPECT_LE((size_t)result, sealed.size());
    if (result <= 0) {
        EXPECT_EQ(destination.text(sealed.size()), std::string(sealed.size(), '\0'));
        return "";
    }
    return destination.text((size_t)result);
}

struct KexPair {
    void *client = _dh_init_sess(KEXCLI_MODE_CLIENT, -1);
    void *server = _dh_init_sess(KEXCLI_MODE_SERVER, -1);

    KexPair() = default;
    KexPair(const KexPair &) = delete;
    KexPair &operator=(const KexPair &) = delete;
    ~KexPair()
    {
        _dh_close_sess(client);
        _dh_close_sess(server);
    }

    // Runs the whole exchange. True if both sides came to its end.
    bool establish()
    {
        std::string hello, answer, finish, nothing;
        return negotiate(client, "", &hello) == KEXCLI_EXCHANGE &&
               negotiate(server, hello, &answer) == KEXCLI_EXCHANGE &&
               negotiate(client, answer, &finish) == KEXCLI_SEND_LAST &&
               negotiate(server, finish, &nothing) == KEXCLI_FINISHED && nothing.empty();
    }
};

#endif
