// Local stream sockets. Results below 0 are those of network.h; here NET_NAME_FAILED stands for a connection
// that didn't come about. Any thread, no lock.
#ifndef VORN_WIRE_TNETWORK_H
#define VORN_WIRE_TNETWORK_H

#include <stdint.h>

extern "C" {

extern int32_t _tlisten_backlog;

int _tproc_listen(const char *path);  // removes what stands at the path
int _tproc_accept(int fd);            // socket or -1
int _tproc_connect(const char *path);
int _tproc_connect_with_timeout(const char *path, int seconds, int microseconds);
}

#endif
