// What an application's tests begin with: the server with the environment in which the library finds it, and
// typed buffers.
#ifndef TESTS_CLHSIM_APPLICATION_H
#define TESTS_CLHSIM_APPLICATION_H

#include "simulator.h"

#include <vorn.h>

#include <cstdlib>
#include <cstring>

inline char *unconst(const char *text)
{
    return const_cast<char *>(text);
}

// A typed buffer that goes away by itself; a call may replace it.
struct Buffer {
    Buffer(const char *type, size_t size, const char *subtype = nullptr)
        : data(tpalloc(unconst(type), unconst(subtype), static_cast<long>(size)))
    {}
    explicit Buffer(const std::string &text) : Buffer("STRING", text.size() + 1)
    {
        strcpy(data, text.c_str());
    }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer() { tpfree(data); }
    char *data;
    long length = 0;
};

inline int call(const char *service, Buffer &buffer, long flags = 0)
{
    return tpcall(unconst(service), buffer.data, 0, &buffer.data, &buffer.length, flags);
}

// The server, and the environment in which the library finds it.
struct Domain : Simulator {
    explicit Domain(std::vector<std::string> options = {}) : Simulator(std::move(options))
    {
        if (port) {
            setenv("VORN_HOST_ADDR", ("127.0.0.1:" + std::to_string(port)).c_str(), 1);
            return;
        }
        setenv("VORN_HOST_ADDR", "localhost", 1);
        setenv("VORN_HOST_PORT", directory.c_str(), 1);
    }
};

#endif
