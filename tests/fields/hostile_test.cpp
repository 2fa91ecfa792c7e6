// Buffers whose words lie, as a server or a file could hand them over: no call reads or writes outside.
#include "fields/fixture.h"

#include "buffers/tbuffer.h"
#include "fields/fbapim.h"
#include "vorn/buffers.h"

using namespace fld;

namespace {

using FieldHostile = FieldTest;

const int32_t A = key(INT, 1), S = key(STRING, 3), C = key(CARRAY, 4);

// Things that a hostile buffer may hold under keys of these.
const int32_t KEYS[] = {A,          S,  C, key(DOUBLE, 5), key(LONG, 6), key(0, 7), key(9, 8),
                        key(31, 9), -1, 0, INT_MIN};

struct hostile {
    std::string what;
    std::string content;
    int32_t capacity;
};

std::string with_used(std::string content, int32_t used)
{
    return content.replace(4, 4, raw(used));
}

std::vector<hostile> hostile_buffers()
{
    std::vector<hostile> all;
    std::string good =
        image({an_int(1, 5), a_string(3, "some text"), a_carray(4, "bytes"), number(key(DOUBLE, 5), 1.5)});
    int32_t size = (int32_t)good.size();
    for (int32_t used : {0,        1,    4,      7,       8,           9,  11,       12,       15,
                         20,       25,   31,     33,      44,          47, size - 1, size - 4, size + 1,
                         size + 8, 1032, 100000, INT_MAX, INT_MAX - 7, -1, -8,       INT_MIN})
        all.push_back({"used " + std::to_string(used), with_used(good, used), size});
    for (int32_t length :
         {-1, -4, -8, -12, -16, -100, INT_MIN, INT_MIN + 8, INT_MAX, INT_MAX - 7, INT_MAX - 15, 100, 9, 17}) {
        std::string bytes = image({an_int(1, 5), a_carray(4, "12345678")});
        bytes.replace(8 + 8 + 4, 4, raw(length));
        all.push_back({"carray of " + std::to_string(length), bytes, (int32_t)bytes.size()});
        bytes += entry(an_int(1, 6));
        bytes = with_used(bytes, (int32_t)bytes.size());
        all.push_back({"carray in front of " + std::to_string(length), bytes, (int32_t)bytes.size()});
    }
    for (size_t length : {4u, 12u, 20u}) {
        std::string bytes = image({an_int(1, 5)}) + raw(S) + std::string(length, 'x');
        all.push_back(
            {"text without an end", with_used(bytes, (int32_t)bytes.size()), (int32_t)bytes.size()});
        all.push_back({"text without an end, used too long", with_used(bytes, 5000), (int32_t)bytes.size()});
    }
    for (int32_t type : {0, 9, 10, 17, 30, 31, -1, -2, -32}) {
        std::string bytes = image({an_int(1, 5)}) + raw(key(type, 7)) + "abcd" + entry(an_int(1, 6));
        all.push_back(
            {"type " + std::to_string(type), with_used(bytes, (int32_t)bytes.size()), (int32_t)bytes.size()});
    }
    for (int32_t k : {key(DOUBLE, 5), C, S, A})
        for (size_t cut : {4u, 5u, 8u, 12u}) {
            std::string bytes = image({an_int(1, 5)}) + (raw(k) + std::string(12, '\x7f')).substr(0, cut);
            all.push_back({"cut entry", with_used(bytes, (int32_t)bytes.size()), (int32_t)bytes.size()});
        }
    all.push_back({"no room for a head", raw<int32_t>(8888), 4});
    all.push_back({"head alone", image({}), 8});
    all.push_back({"head alone, used too long", with_used(image({}), 100), 8});
    std::string garbage;
    uint32_t state = 12345;
    for (int i = 0; i < 200; i++)
        garbage += (char)((state = state * 1103515245 + 12345) >> 16);
    all.push_back({"garbage", garbage, 200});
    all.push_back({"garbage, all used", with_used(garbage, 200), 200});
    return all;
}

// The calls that only look, and those that change the buffer. `area` is large enough for all that they
// deliver.
struct step {
    const char *what;
    std::function<void(FBUF *, int32_t)> call;
};

char area[8192];
const int NUMBERS[] = {0, 1, 3, INT_MAX, -1};

void each_number(const std::function<void(int)> &call)
{
    for (int nth : NUMBERS)
        call(nth);
}

int given()
{
    return (int)sizeof area;
}

const std::vector<step> &steps()
{
    static const char *text = "a value of 23 characters";
    static const char tiny[16] = "x";  // as a number it is read at its full width
    static const std::vector<step> all = {
        {"fbisfbuf", [](FBUF *f, int32_t) { fbisfbuf(f); }},
        {"fbget_used", [](FBUF *f, int32_t) { fbget_used(f), fbget_unused(f), fbget_fbsize(f); }},
        {"fbfldcount", [](FBUF *f, int32_t) { fbfldcount(f); }},
        {"fbkeyoccur", [](FBUF *f, int32_t k) { fbkeyoccur(f, k), fbkeyoccur(f, k); }},
        {"fbispres", [](FBUF *f, int32_t k) { each_number([&](int n) { fbispres(f, k, n); }); }},
        {"fbgetval",
         [](FBUF *f, int32_t k) {
             each_number([&](int n) {
                 int len = 0;
                 char *value = fbgetval(f, k, n, &len);
                 if (value != nullptr && len > 0) {
                     EXPECT_EQ(std::string(value, (size_t)len).size(), (size_t)len);  // it can all be read
                 }
             });
         }},
        {"fbgetlen", [](FBUF *f, int32_t k) { each_number([&](int n) { fbgetlen(f, k, n); }); }},
        {"fbgetnth", [](FBUF *f, int32_t k) { fbgetnth(f, k, chars(text), 5); }},
        {"fbgetvali",
         [](FBUF *f, int32_t k) { each_number([&](int n) { fbgetvali(f, k, n), fbgetvals(f, k, n); }); }},
        {"fbgetvalt",
         [](FBUF *f, int32_t k) {
             int len = 0;
             for (int type = 0; type <= 9; type++)
                 fbgetvalt(f, k, 0, &len, type);
         }},
        {"fbgett",
         [](FBUF *f, int32_t k) {
             for (int type = 0; type <= 9; type++) {
                 int len = given();
                 fbgett(f, k, area, &len, type);
             }
         }},
        {"fbgetntht", [](FBUF *f, int32_t k) { fbgetntht(f, k, chars("7"), 1, STRING); }},
        {"fbget_tu",
         [](FBUF *f, int32_t k) {
             each_number([&](int n) {
                 int len = given();
                 fbget_tu(f, k, n, area, &len);
                 len = given();
                 fbget_tut(f, k, n, area, &len, STRING);
             });
         }},
        {"fbgetlast_tu",
         [](FBUF *f, int32_t k) {
             int nth = 0, len = given();
             fbgetval_last_tu(f, k, &nth, &len);
             len = given();
             fbgetlast_tu(f, k, &nth, area, &len);
         }},
        {"fbgetalloc_tu",
         [](FBUF *f, int32_t k) {
             int extra = 64;
             free(fbgetalloc_tu(f, k, 0, &extra));
             for (int type = 0; type <= 9; type++) {
                 extra = 64;
                 free(fbgetalloc_tut(f, k, 0, type, &extra));
             }
         }},
        {"fbnext_tu",
         [](FBUF *f, int32_t k) {
             int at = 0, nth = 0, len = given(), steps = 0;
             while (steps++ < 100 && fbnext_tu(f, &at, &nth, area, &len) > 0)
                 len = given();
             at = k;
             fbnext_tu(f, &at, &nth, nullptr, nullptr);
         }},
        {"fbgetvals_tu",
         [](FBUF *f, int32_t k) {
             each_number([&](int n) {
                 EXPECT_GE(strlen(fbgetvals_tu(f, k, n)), 0u);
                 fbgetvall_tu(f, k, n);
             });
         }},
        {"fbget",
         [](FBUF *f, int32_t k) {
             for (int i = 0; i < 3; i++) {
                 int len = given();
                 fbget(f, k, area, &len);
             }
         }},
        {"fbgetf",
         [](FBUF *f, int32_t k) {
             for (int start : {0, 8, 1, 16, 24, 1000, -8}) {
                 int len = given(), from = start;
                 fbgetf(f, k, area, &len, &from);
             }
         }},
        {"fbgetc",
         [](FBUF *f, int32_t k) {
             for (int type = 0; type <= 9; type++) {
                 int len = given(), from = 0;
                 fbgetc(f, k, area, &len, &from, type);
             }
         }},
        {"fbput", [](FBUF *f, int32_t k) { fbput(f, k, chars(text), 9), _fbput(f, k, chars(text), 9); }},
        {"fbputt", [](FBUF *f, int32_t k) { fbputt(f, k, chars("77"), 2, STRING); }},
        {"fbinsert",
         [](FBUF *f, int32_t k) { each_number([&](int n) { fbinsert(f, k, n, chars(text), 9); }); }},
        {"fbupdate",
         [](FBUF *f, int32_t k) { each_number([&](int n) { fbupdate(f, k, n, chars(text), 23); }); }},
        {"fbupdate shorter",
         [](FBUF *f, int32_t k) { each_number([&](int n) { fbupdate(f, k, n, chars(tiny), 1); }); }},
        {"fbupdate without a length", [](FBUF *f, int32_t k) { fbupdate(f, k, 0, chars(tiny), -20); }},
        {"fbchg_tu",
         [](FBUF *f, int32_t k) {
             each_number([&](int n) {
                 fbchg_tu(f, k, n, chars(text), 9);
                 fbchg_tut(f, k, n, chars("77"), 2, STRING);
                 fbchg_tu(f, k, n, nullptr, 0);
             });
         }},
        {"fbdelete", [](FBUF *f, int32_t k) { each_number([&](int n) { fbdelete(f, k, n); }); }},
        {"fbdelall",
         [](FBUF *f, int32_t k) {
             fbdelall(f, k);
             int keys[] = {A, k, 0};
             fbdelall_tu(f, keys);
         }},
        {"fbfprint",
         [](FBUF *f, int32_t) {
             FILE *sink = fopen("/dev/null", "w");
             fbfprint(f, sink);
             fbwrite(f, sink);
             fclose(sink);
         }},
        {"fbbufop_proj",
         [](FBUF *f, int32_t k) {
             int keys[] = {k, A, 0};
             Buffer target;
             fbbufop_proj(target, f, keys);
             fbbufop_proj(f, nullptr, keys);
         }},
        {"as the source of fbbufop",
         [](FBUF *f, int32_t) {
             for (int op = 1; op <= 7; op++) {
                 Buffer target({an_int(1, 5), a_string(3, "text"), a_carray(4, "c")});
                 fbbufop(target, f, op);
             }
         }},
        {"as the target of fbbufop",
         [](FBUF *f, int32_t) {
             for (int op = 1; op <= 7; op++) {
                 Buffer source({an_int(1, 5), a_string(3, "text"), a_carray(4, "c")});
                 source.tighten();
                 fbbufop(f, source, op);
             }
         }},
    };
    return all;
}

}  // namespace

TEST_F(FieldHostile, NoCallLeavesTheBuffer)
{
    for (const char *mode : {"OLD", "TRU", "ERR"}) {
        length_mode(mode);
        for (const hostile &one : hostile_buffers())
            for (const step &each : steps()) {
                SCOPED_TRACE(one.what + ", " + each.what);
                for (int32_t k : KEYS) {
                    Guarded fbuf(one.content, one.capacity);
                    each.call(fbuf, k);
                    _clear_fcache(fbuf);
                }
            }
    }
}

TEST_F(FieldHostile, CallsInARowStayInsideToo)
{
    // Each call meets what the ones before it have made of the buffer, and what they left in the cache.
    for (const hostile &one : hostile_buffers()) {
        SCOPED_TRACE(one.what);
        Guarded fbuf(one.content, one.capacity);
        for (int32_t k : KEYS)
            for (const step &each : steps())
                each.call(fbuf, k);
        _clear_fcache(fbuf);
    }
}

TEST_F(FieldHostile, StalePositionsStayInside)
{
    Guarded fbuf(image({an_int(1, 5), an_int(1, 6)}), 24);
    for (int offset : {-8, -1000, INT_MIN, INT_MAX, 16, 17, 20, 24, 100000, 3, 12})
        for (const step &each : steps()) {
            SCOPED_TRACE(testing::Message() << each.what << " at " << offset);
            fbuf.put(image({an_int(1, 5), an_int(1, 6)}));
            _clear_fcache(fbuf);
            _upd_fcache(fbuf, A, 0, offset);
            each.call(fbuf, A);
        }
    _clear_fcache(fbuf);
}

TEST_F(FieldHostile, WalksEndAtTheFirstBrokenEntry)
{
    std::string bytes = image({an_int(1, 5), a_carray(4, "12345678"), an_int(1, 6)});
    bytes.replace(8 + 8 + 4, 4, raw<int32_t>(10000));
    Guarded fbuf(bytes, (int32_t)bytes.size());
    EXPECT_CALL(fbfldcount(fbuf), 1, 0);
    EXPECT_CALL(fbkeyoccur(fbuf, A), 1, 0);
    EXPECT_CALL(fbkeyoccur(fbuf, C), 0, 0);
    EXPECT_CALL(fbgetval(fbuf, A, 1, nullptr), nullptr, FBENOENT);
    EXPECT_CALL(fbgetvali(fbuf, A, 0), 5, 0);
}

TEST_F(FieldHostile, UsedLengthBelowTheHeadCountsAsEmpty)
{
    for (int32_t used : {0, 7, -1, INT_MIN}) {
        Guarded fbuf(with_used(image({an_int(1, 5)}), used), 32);
        EXPECT_CALL(fbfldcount(fbuf), 0, 0);
        EXPECT_CALL(fbispres(fbuf, A, 0), 0, 0);
    }
}

TEST_F(FieldHostile, BlocksOfTheLibraryKeepTheirReserve)
{
    for (const hostile &one : hostile_buffers())
        for (const step &each : steps()) {
            SCOPED_TRACE(one.what + ", " + each.what);
            Buffer fbuf;
            memcpy(fbuf.bytes(), one.content.data(), std::min(one.content.size(), (size_t)1032));
            each.call(fbuf, A);
            each.call(fbuf, C);
        }
}
