// The rolling start: the session moves to another server, while its previous connection stays open for the
// replies that are still to come over it.
#ifndef VORN_SESSION_ROLLING_H
#define VORN_SESSION_ROLLING_H

struct msg_header;
struct wthr_var;

extern "C" {

// Moves the caller's session to the other address list, in up to two attempts; nothing to do while an earlier
// move isn't finished. For the thread that has set `rolling`; without a lock. 1, or -1 with tperrno set.
int _vorn_rolling_start(void);
int _internal_vorn_rolling_start(msg_header *message, int to_backup, wthr_var *block);  // one attempt

// True on the thread that is moving this context's session: what it sends meanwhile doesn't wait for itself.
bool is_moving(const wthr_var *block);
}

#endif
