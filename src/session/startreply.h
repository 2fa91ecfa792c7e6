// The start reply: what the server tells a client to work in the domain.
#ifndef VORN_SESSION_STARTREPLY_H
#define VORN_SESSION_STARTREPLY_H

struct msg_header;
struct wthr_var;

extern "C" {

// Takes a good start reply into the block: sizes of the tables, identity, nodes and queues, threshold,
// time-outs. A session that only `moves` keeps its identity and its calls, and other threads may be at
// work. `node_fd` is the socket noted for the server's node. 1, or -1 with tperrno set.
int take_start_reply(msg_header *reply, int node_fd, bool moves, wthr_var *block);
}

#endif
