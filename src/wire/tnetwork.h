// Local stream sockets, and the messages of two simple links: between processes of a host, in host order, and
// between nodes, in wire order. Neither compresses or enciphers, and each call is one message. Any thread, no
// lock; a link is for one thread a direction.
#ifndef VORN_WIRE_TNETWORK_H
#define VORN_WIRE_TNETWORK_H

#include <stdint.h>

struct msg_header;

extern "C" {

extern int32_t _tlisten_backlog;
extern int32_t _my_nodeno;  // what node messages bear in `buftype`; process messages bear _my_tproc

// Sockets. Results below 0 are those of network.h; here NET_NAME_FAILED stands for a connection that didn't
// come about.
int _tproc_listen(const char *path);  // removes what stands at the path
int _tproc_accept(int fd);            // socket or -1
int _tproc_connect(const char *path);
int _tproc_connect_with_timeout(const char *path, int seconds, int microseconds);

// How the last read of a context went: `proc_read_status` and `node_read_status` of its block.
enum link_status : int32_t {
    LINK_GOOD = 0,
    LINK_CLOSED = -1,  // before the header
    LINK_SHORT_HEADER = -2,
    LINK_BAD_MAGIC = -3,
    LINK_NO_MEMORY = -4,
    LINK_SHORT_DATA = -5  // also for a negative length
};

// The next message, in host order, a block of the caller's; null with the status set.
msg_header *_read_procmsg_sync(int fd);
msg_header *_read_nodemsg_sync(int fd);

// Header and data. 1 or -1. A node message's header stays in wire order.
int _write_procmsg_sync(int fd, msg_header *message);
int _write_nodemsg_sync(int fd, msg_header *message);

// Make a message, write it and free it. 1 or -1; also -1 for a negative length, and a length without data.
int _send_procmsg_nodata(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags);
int _send_procmsg_nodata_svcname(int fd, int32_t msgtype, const char *name, int32_t rcode, int32_t cd,
                                 uint32_t flags);  // at most 32 bytes of the name
int _send_procmsg_nodata_svcname2(int fd, int32_t msgtype, const char *name, const char *text, int32_t rcode,
                                  int32_t cd, uint32_t flags);  // 31 of the text, from `value` on
int _send_procmsg_nodata_3(int fd, int32_t msgtype, int32_t rcode, int32_t cd, int32_t target,
                           uint32_t flags);
int _send_procmsg_data(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags, int32_t length,
                       const void *data);
int _send_procmsg_data_3(int fd, int32_t msgtype, int32_t rcode, int32_t cd, int32_t target, uint32_t flags,
                         int32_t length, const void *data);
int _send_nodemsg_nodata(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags);
int _send_nodemsg_data(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags, int32_t length,
                       const void *data);

// Turn the rows of a recovery list, of which the header, in host order, tells the number in `rcode`. 1, or -1
// for a message of another type and for more rows than it has data.
int _hton_recover_data(msg_header *message);
int _ntoh_recover_data(msg_header *message);
}

#endif
