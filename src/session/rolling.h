// The rolling start, that is moving to the other server while the old one finishes its calls. It is not
// available yet: this is the one place where a warning or a request given back ends.
#ifndef VORN_SESSION_ROLLING_H
#define VORN_SESSION_ROLLING_H

extern "C" int _vorn_rolling_start(void);  // 1, or -1 with tperrno set

#endif
