// The stream as a hostile server would write it: a start reply first, then whatever comes while a call waits, then
// what a fetch of stored replies finds. The bytes stand in a socket whose other end is closed, so that every wait
// ends.
#include "calls/cscommon.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "session/startreply.h"
#include "tx/tx.h"
#include "vorn/flags.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

static msg_header *template_of(int32_t msgtype, int32_t bufsize)
{
    msg_header *want = (msg_header *)calloc(1, (size_t)bufsize + BLOCK_OVERHEAD);
    _init_header(want);
    want->msgtype = msgtype;
    want->bufsize = bufsize;
    want->seqno = 1;
    want->cd = 1;
    return want;
}

static void write_all(int fd, const uint8_t *data, size_t size)
{
    // What the socket's buffer can't hold is left out: the reader hasn't begun yet.
    (void)!send(fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int ends[2];
    wthr_var *block = current_block();
    _daemon = 1;
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) < 0)
        return 0;
    write_all(ends[1], data, size);
    block->clhfd = ends[0];
    block->new_clhfd = -1;
    block->old_clhfd = -1;
    block->started = 1;
    block->rolling_failed = 0;
    block->reader_busy = 0;
    block->block_time = 0;
    block->unsol_mode = 4;
    _make_txinfo(block);
    msg_header *want = template_of(MSG_TPSTART, 64);
    msg_header *reply = _read_csmsg_from_clh_timeout(want, 1, block);
    if (reply != nullptr && reply->msgtype == MSG_TPSTART + REPLY)
        take_start_reply(reply, block->clhfd, false, block);
    free(reply != nullptr ? reply : want);
    if (block->acall == nullptr)
        _init_acall(4, block);
    _create_acall_cd(0, block);
    for (int round = 0; round < 8 && block->clhfd >= 0; round++) {
        want = template_of(round % 2 == 0 ? MSG_TPCALL : MSG_TPACALL, 64);
        want->flags = round % 2 == 0 ? 0 : (uint32_t)TPGETANY;
        reply = _read_csmsg_from_clh_timeout2(want, 1, 0, block);
        free(reply != nullptr ? reply : want);
    }
    _clhc_close(block->clhfd, block);
    _clear_init_mem(block);
    close(ends[1]);
    return 0;
}
