// Conversations. They are not available yet: this is the one place where what reaches them ends.
#ifndef VORN_CALLS_CONVAPI_H
#define VORN_CALLS_CONVAPI_H

struct wthr_var;

extern "C" {
int _vorn_send_discon(int cd, wthr_var *block);  // -1
int end_conversation(int index,
                     wthr_var *block);  // disconnects the row's conversation and releases the row; -1
}

#endif
