// What the tests of field buffers share.
#ifndef VORN_TESTS_FIELDS_FIXTURE_H
#define VORN_TESTS_FIELDS_FIXTURE_H

#include "fields/fbcommon2.h"
#include "runtime/semantics.h"
#include "support/faults.h"
#include "support/fieldbuffer.h"
#include "support/gtest.h"
#include "vorn/compat.h"
#include "vorn/errors.h"
#include "vorn/fields.h"

#include <limits.h>
#include <stdlib.h>

// A clean environment, and fberror full of a number that no call leaves there.
struct FieldTest : testing::Test {
    static constexpr int STALE = 99;

    FieldTest()
    {
        for (const char *name : {"FDLFILE", "SDLFILE", "SDLFILE64", "VORN_SEMANTICS", "VORN_ERR_MSG"})
            unsetenv(name);
        stale();
    }
    static void stale() { *_tmget_fberror_addr() = STALE; }

    // From here on values are handed out as FDL_LEN says ("TRU", "ERR", "OLD"; null: unset).
    static void length_mode(const char *mode)
    {
        if (mode == nullptr)
            unsetenv("VORN_SEMANTICS");
        else
            setenv("VORN_SEMANTICS", (std::string("FDL_LEN=") + mode).c_str(), 1);
        _vorn_init_semantics();
    }
};

// The result of a call and fberror behind it, which the call must have set.
#define EXPECT_CALL(call, result, error) \
    do { \
        FieldTest::stale(); \
        EXPECT_EQ((call), (result)); \
        EXPECT_EQ(getfberror(), (error)); \
    } while (0)

inline char *chars(const void *value)
{
    return (char *)value;
}

// fbput and fbinsert of a field as an application has it.
inline int put(FBUF *fbuf, const fld::field &one)
{
    std::string value = fld::handed_over(one);
    return fbput(fbuf, one.key, value.data(), fld::type_of(one.key) == fld::CARRAY ? (int)value.size() : 0);
}
inline int insert(FBUF *fbuf, int nth, const fld::field &one)
{
    std::string value = fld::handed_over(one);
    return fbinsert(fbuf, one.key, nth, value.data(), (int)one.value.size());
}
inline int update(FBUF *fbuf, int nth, const fld::field &one)
{
    std::string value = fld::handed_over(one);
    return fbupdate(fbuf, one.key, nth, value.data(), (int)one.value.size());
}

// One field of each type.
inline fld::list one_of_each()
{
    using namespace fld;
    return {number<int8_t>(key(CHAR, 1), 'c'),
            number<int16_t>(key(SHORT, 2), -2),
            number<int32_t>(key(INT, 3), 0x11223344),
            number<int32_t>(key(LONG, 4), -4),
            number<float>(key(FLOAT, 5), 1.5f),
            number<double>(key(DOUBLE, 6), -2.25),
            a_string(7, "seven"),
            a_carray(8, std::string("\0\1\2", 3))};
}

#endif
