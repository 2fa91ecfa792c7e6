// Conversations: what the rest of the library needs of them. The calls are in vorn/conversation.h.
//
// A message for a conversation goes to the tprecv that waits for it, else into the row's list; both under
// msg_mutex, and a tprecv looks at the list under msg_mutex before it waits, so none is missed.
#ifndef VORN_CALLS_CONVAPI_H
#define VORN_CALLS_CONVAPI_H

struct msg_header;
struct wthr_var;

extern "C" {

int _vorn_send_discon(int cd,
                      wthr_var *block);  // tells the server that it is over; 1, or -1 with tperrno set

// Disconnects the row's conversation and releases the row; what _vorn_send_discon gave. Takes msg_mutex.
int end_conversation(int index, wthr_var *block);

// A reply to a waiting tpconnect names the conversation: its row must bear the descriptor before the next
// message is read. Any message of another kind is left alone. The caller has the reader role, or msg_mutex.
void name_conversation(const msg_header *want, const msg_header *message, wthr_var *block);

// The next message of the conversation that a tprecv, whose template `want` is, would otherwise wait for: off
// the row's list, or, if the other side has ended it, made here. Null if there is none. Expects msg_mutex.
msg_header *take_conversation_message(const msg_header *want, wthr_var *block);

// A message of a conversation on which nobody waits: stored in the row, or noted there. Both own the message.
// 1, or -1 with tperrno set.
int store_conversation_message(msg_header *message, wthr_var *block);
int note_conversation_end(msg_header *message, wthr_var *block);
}

#endif
