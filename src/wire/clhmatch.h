// What to do with a message that arrived: does it answer what somebody waits for, is it a request that the
// server gave back, and where does it go if nobody wants it. Also the server's going-down warning.
#ifndef VORN_WIRE_CLHMATCH_H
#define VORN_WIRE_CLHMATCH_H

struct msg_header;
struct wthr_var;

extern "C" {

// Non-zero if `message` answers `want`. Reads the tables of the block; the caller holds msg_mutex, or is the
// thread that waits with `want`.
int _is_msgtype_matched(const msg_header *want, const msg_header *message, wthr_var *block);

// True if the data of a message of which only the header has come can be read into the block of `want`: a
// good reply of plain bytes that answers it, fits it, and needs no treatment on the way.
bool may_be_read_in_place(const msg_header *want, const msg_header *head, wthr_var *block);

// A call that several threads share travelled as a TPACALL; its reply becomes the TPCALL's again.
void undo_shared_call(msg_header *message);

// Takes ownership of the message. 1 if it was dealt with, -1 with tperrno set if the wait must end. Runs in
// the thread that read the message, outside msg_mutex.
int _unmatched_msg_process(msg_header *message, wthr_var *block);

// A request that the server gave back: 0 for any other message, 1 if it was sent again, -1 if it could not be
// and the message goes to the caller as the error reply that it is. Takes roll_mutex.
int _is_msgtype_irt(msg_header *want, msg_header *message, wthr_var *block);

// The byte of urgent data that warns of a server going down. Expects roll_mutex and gives it up for the time
// of a rolling start. 1, -1 or -2; 1 also for a byte that is no warning and stays unread.
int _recv_oob_msg(int fd, wthr_var *block);

int _wait_while_rolling_start(int fd, wthr_var *block);  // 0, ETIMEDOUT, or -1 for the starting socket itself
}

#endif
