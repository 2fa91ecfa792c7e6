// Where the servers are: the address lists of the environment, the order of connecting, and the table of the
// domain's nodes.
//
// A list is a run of groups, tried in the written order; within a group the addresses are equals, tried from
// a random one on. Nothing here sets tperrno: the start of a session does, once neither list gave a socket.
#ifndef VORN_SESSION_ADDRESS_H
#define VORN_SESSION_ADDRESS_H

#include <stdint.h>

struct wthr_var;

extern "C" {

// A node of the domain; the node's number is its index.
struct node_elem {
    int32_t fd;      // socket to that node; -1: none
    int32_t clh;     // number of the CLH on the node; -1: unknown
    int32_t client;  // client number there; -1: unknown
    int32_t active;  // cleared with the socket; set by nothing in a client
};
static_assert(sizeof(node_elem) == 16);

struct address_row {
    char host[256];  // ended by a NUL, cut at 255
    int32_t port;    // 0: none
};
static_assert(sizeof(address_row) == 260);

struct address_group {
    int32_t count;
    address_row *rows;  // owned by the group
};

// Longest text of one group in the variable, brackets included: some 150 addresses. A longer one fails.
constexpr int32_t MOST_GROUP_TEXT = 4095;

extern int32_t _vorn_srand_flag;  // 1 once the random generator is seeded

// Parsing. The second and third give the number of addresses or groups, 0 for a lone address without a port,
// or -1. Except after -1 the rows, or the groups (one after 0), are the caller's to free.
int _parse_hostport_string(char *text, address_row *row);  // 1 with a port, 0 without; cuts `text`
int _parse_cousin_string(const char *text, address_group *group);
int _parse_addr_string(const char *text, address_group **groups);
int _free_addr_pairs(int count, address_group *groups);  // 0; null is fine

// Connecting. Blocking, on the caller's thread, without any lock. A socket, or a negative value.
int _connect_to_addr_pairs(const address_group *group);
int _connect_to_server(const char *host, int port);  // the socket has TCP_NODELAY
int _connect_to_local_server(const char *path);
int _connect_to_vorn_server(const char *address_variable, const char *port_variable);
int _connect_to_main_server(void);
int _connect_to_backup_server(void);

// Nodes. Only the thread that starts or ends the session calls the first three.
int _init_node(int count, wthr_var *block);  // 1; a count below 1 frees the table and gives -1
int _node_add(int fd, int node, int clh, int client, wthr_var *block);  // 1; -1 for a node outside the table
void _node_del(int fd, wthr_var *block);
int _get_nodeno_from_nodename(const char *name, const wthr_var *block);  // node number or -1
int _get_nodeno_from_lnid(const char *name, const wthr_var *block);
bool is_row_name(const char *name, const char field[16]);  // is `name` the name in a row of the start reply
}

#endif
