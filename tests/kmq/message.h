// What the tests of message objects share: setting and getting by name, and the entries that come of it.
#ifndef VORN_TESTS_KMQ_MESSAGE_H
#define VORN_TESTS_KMQ_MESSAGE_H

#include "kmq/fixture.h"

#include "fields/fbcommon2.h"
#include "kmq/kmqmsg.h"
#include "support/fieldbuffer.h"

struct MessageTest : KmqTest {
    struct got {
        int result, type;
        long len;
        std::string bytes;  // of a good result, `len` of them
    };

    int set(const char *name, int type, const void *value, long length = 0)
    {
        return kmq_set_property(msg, svc(name), type, (void *)value, length);
    }
    int set(const char *name, const std::string &text) { return set(name, fld::STRING, text.c_str()); }
    int set(const char *name, int32_t number) { return set(name, fld::INT, &number); }
    got get(const char *name, long room = 4096) { return get_of(msg, name, room); }
    static got get_of(char *message, const char *name, long room = 4096)
    {
        std::string bytes(4200, '\x5a');
        got it = {0, 0, room, ""};
        it.result = kmq_get_property(message, svc(name), &it.type, bytes.data(), &it.len);
        if (it.result == 1 && it.len >= 0 && it.len < 4200) {
            it.bytes = bytes.substr(0, (size_t)it.len);
            EXPECT_EQ(bytes[(size_t)std::max(it.len, room) + 1], '\x5a') << "written behind the room";
        }
        return it;
    }
    std::string text(const char *name)
    {
        got it = get(name);
        EXPECT_EQ(it.result, 1) << name << ": " << gettperrno();
        EXPECT_EQ(it.type, fld::STRING);
        return it.bytes;
    }
    int32_t number(const char *name)
    {
        got it = get(name, 4);
        EXPECT_EQ(it.result, 1) << name << ": " << gettperrno();
        EXPECT_EQ(it.len, 4);
        int32_t value = 0;
        memcpy(&value, it.bytes.data(), std::min(it.bytes.size(), sizeof value));
        return value;
    }
    int set_body(const std::string &bytes)
    {
        return kmq_set_body(msg, (void *)bytes.data(), (long)bytes.size());
    }

    fbuf *buffer(void) const { return (fbuf *)msg; }
    // Room for `spare` bytes more, and none behind them.
    void tighten(int32_t spare) { fld::set_capacity(buffer(), fld::used(buffer()) + spare); }

    void expect_error(long result, int error, where place = where::current())
    {
        EXPECT_EQ(result, -1) << place.line;
        EXPECT_EQ(gettperrno(), error) << place.line;
    }
    // The call fails with TPEINVAL and leaves the message as it was, byte by byte.
    void expect_unchanged(const std::function<int()> &work, where place = where::current())
    {
        std::string before = fld::used_bytes(buffer());
        expect_error(work(), TPEINVAL, place);
        EXPECT_EQ(fld::used_bytes(buffer()), before) << place.line;
    }
};

// A pair of entries.
inline fld::list pair(const std::string &name, const fld::field &value)
{
    return {fld::a_string(1, name), value};
}
inline fld::list operator+(fld::list first, const fld::list &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}
inline fld::list body_pair(const std::string &bytes)
{
    return {fld::a_string(0, "$Data"), fld::a_carray(0, bytes)};
}

#endif
