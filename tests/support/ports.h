// Ports of this machine.
#ifndef VORN_TESTS_SUPPORT_PORTS_H
#define VORN_TESTS_SUPPORT_PORTS_H

// A socket bound to a port of this machine (0: a free one, which is told). Further ones may be bound to it, and
// one of them may listen; but nobody else is given the port while one is open. Without that, the port of a server
// that has stopped soon is another process's, and attempts succeed that ought to be refused.
int hold_port(int *port);

#endif
