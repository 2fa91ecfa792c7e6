// The rolling start.
//
// Entered from the send and receive paths, on the thread that has met the server's warning or a request given
// back, with `rolling` set and no lock held. The other threads go on reading the current connection, and
// those that want to send wait until the move is over. The new connection is `new_clhfd` until the login is
// through, and read by this thread alone; then it becomes `clhfd`, and what was that becomes `old_clhfd`.
#include "session/rolling.h"

#include "runtime/semantics.h"
#include "runtime/sigapi.h"
#include "runtime/thrapi.h"
#include "session/cliapi.h"
#include "vorn/errors.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <unistd.h>

extern "C" {

static constexpr api_text ROLLING_START = API_TEXT("_vorn_rolling_start", "(void)");

static thread_local const wthr_var *moving_block __attribute__((tls_model("initial-exec"))) = nullptr;

bool is_moving(const wthr_var *block)
{
    return moving_block == block;
}

int _internal_vorn_rolling_start(msg_header *message, int to_backup, wthr_var *block)
{
    _vorn_signal_control();
    if (_vorn_crypt_sw != 0) {
        block->rolling_failed = 1;
        return -1;
    }
    block->new_clhfd = -1;
    int fd = connect_to_list(to_backup, block);
    if (fd < 0)
        return -1;
    block->new_clhfd = fd;
    return take_login(exchange_start(message, MSG_TPSTART, fd, block), MSG_TPSTART, true, block);
}

// Closes the connection of an attempt that came to nothing.
static void abandon_new_connection(wthr_var *block)
{
    int fd = block->new_clhfd.exchange(-1);
    if (fd >= 0)
        close(fd);
}

static int move_session(msg_header *message, wthr_var *block)
{
    for (int attempt = 0; attempt < START_ATTEMPTS; attempt++) {
        if (_internal_vorn_rolling_start(message, block->on_backup == 0, block) > 0)
            return 1;
        abandon_new_connection(block);
        usleep(ATTEMPT_PAUSE);
    }
    return -1;
}

// A sender has msg_mutex from its choice of a socket until its message is written, so none sees half of this.
static void change_sockets(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    block->old_clhfd = block->clhfd.load();
    block->clhfd = block->new_clhfd.load();
    block->new_clhfd = -1;
    drop_read_ahead(block, block->clhfd);  // of a socket that had this number before
    block->rolled = block->old_clhfd >= 0 ? ROLLED : 0;
    block->started = 1;  // the previous connection may have ended meanwhile
    _thread_mutex_unlock(&block->msg_mutex);
    wake_reader(block);  // it sleeps on the previous socket alone
}

int _vorn_rolling_start(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, ROLLING_START))
        return -1;
    wthr_var *block = frame.block;
    if (block->old_clhfd >= 0)
        return api_return(&ROLLING_START, 1);
    msg_header *bare = block->start_msg == nullptr ? _header_msg_make(MSG_TPSTART, 0) : nullptr;
    msg_header *message = bare != nullptr ? bare : block->start_msg;
    if (message == nullptr)
        return api_fail(&frame, &ROLLING_START, TPESYSTEM);
    moving_block = block;
    int result = move_session(message, block);
    moving_block = nullptr;
    free(bare);
    if (result < 0)
        return api_error(&frame, &ROLLING_START);
    change_sockets(block);
    return api_return(&ROLLING_START, 1);
}
}
