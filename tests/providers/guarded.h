// Memory with a page behind it (and, where its size is a multiple of the page, in front of it) that nobody
// may touch: the code of the compression and cipher libraries isn't instrumented, and this catches it too.
#ifndef VORN_TESTS_PROVIDERS_GUARDED_H
#define VORN_TESTS_PROVIDERS_GUARDED_H

#include <stdint.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

struct Guarded {
    size_t size, page, mapped;
    uint8_t *area, *data;

    explicit Guarded(size_t bytes) : size(bytes), page((size_t)sysconf(_SC_PAGESIZE))
    {
        size_t pages = (bytes + page - 1) / page;
        mapped = (pages + 2) * page;
        area = (uint8_t *)mmap(nullptr, mapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED ||
            (pages > 0 && mprotect(area + page, pages * page, PROT_READ | PROT_WRITE) != 0))
            abort();
        data = area + page + pages * page - bytes;
    }
    explicit Guarded(const std::string &bytes) : Guarded(bytes.size())
    {
        if (!bytes.empty())
            memcpy(data, bytes.data(), bytes.size());
    }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;
    ~Guarded() { munmap(area, mapped); }

    std::string text(size_t length) const { return std::string((const char *)data, length); }
};

// Numbers from a fixed seed, so that a failure comes again.
struct Dice {
    uint64_t state;
    explicit Dice(uint64_t seed) : state(seed * 2 + 1) {}
    uint64_t next()
    {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state * 0x2545F4914F6CDD1DULL;
    }
    size_t below(size_t limit) { return (size_t)((next() >> 11) % limit); }
    std::string bytes(size_t length)
    {
        std::string made(length, '\0');
        for (char &byte : made)
            byte = (char)(next() >> 56);
        return made;
    }
};

#endif
