#include "wire/envelope.h"

#include "runtime/mthr.h"
#include "vorn/errors.h"

extern "C" {

// As if the key exchange had given no session.
int _vorn_negotiate(wthr_var *block)
{
    (void)block;
    set_tperrno(TPESYSTEM);
    return -1;
}

// Reached only if the switch is turned on under a session that runs in clear.
static int refuse_to_encipher(void)
{
    set_tperrno(TPEOS);
    return -1;
}

int _crypt_noenc_send(msg_header *message, wthr_var *block)
{
    (void)message, (void)block;
    return refuse_to_encipher();
}

int _crypt_enc_send(msg_header *message, int datalen, wthr_var *block)
{
    (void)message, (void)datalen, (void)block;
    return refuse_to_encipher();
}
}
