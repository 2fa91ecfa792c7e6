// The shared key store: the identity under which a client has its part of it.
#ifndef VORN_QUEUE_KEYSTORE_H
#define VORN_QUEUE_KEYSTORE_H

struct wthr_var;

extern "C" {

// With this flag the identity stands for the client's whole node: all bits below the node number are set.
constexpr int SESSIONID_GLOBAL = 0x10000;
constexpr int SESSIONID_PLACE = 0x1fffff;  // the client's place on its node; the node number is above it

int _get_sessionid(int flags, wthr_var *block);  // -1 with TPEPROTO without a session
}

#endif
