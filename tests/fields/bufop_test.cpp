// Operations on two whole buffers, and projections.
#include "fields/values.h"

#include "fields/fbbufop.h"
#include "fields/fbcommon2.h"
#include "support/faults.h"
#include "vorn/buffers.h"

using namespace fv;

namespace {

// Fields of the ints A, B, C and D.
field A(int value)
{
    return stored(1, i(value));
}
field B(int value)
{
    return stored(2, i(value));
}
field C(int value)
{
    return stored(3, i(value));
}
field D(int value)
{
    return stored(4, i(value));
}

const int KEY_A = key_of(FB_INT, 1), KEY_B = key_of(FB_INT, 2), KEY_C = key_of(FB_INT, 3);

fields fill(Buffer &buffer, const fields &list)
{
    for (const field &one : list)
        buffer.add(one);
    return list;
}

// The operation fails, and both buffers stand.
void expect_refused(FBUF *dest, FBUF *src, int op, int error)
{
    SCOPED_TRACE(testing::Message() << "operation " << op);
    std::string before = whole(dest), source = whole(src);
    EXPECT_EQ(fbbufop(dest, src, op), -1);
    EXPECT_EQ(getfberror(), error);
    EXPECT_EQ(whole(dest), before);
    EXPECT_EQ(whole(src), source);
}

bool cached(FBUF *fbuf, int key)
{
    int nth, offset;
    return _srch_fcache(fbuf, key, 0x7fffffff, &nth, &offset) >= 0;
}

struct combination {
    fields dest, src;
    fields join, outer, update;
};

std::vector<combination> combinations()
{
    field text = stored(5, t("a longer text")), other = stored(5, t("x")), bytes = stored(6, a("123456789"));
    field wide = stored(7, d(1.5)), big = stored(8, l(-1));
    return {
        {{A(1), A(2), B(3)}, {A(9)}, {A(9)}, {A(9), A(2), B(3)}, {A(9), A(2), B(3)}},
        {{A(1), A(2), B(3)}, {A(9), C(5)}, {A(9)}, {A(9), A(2), B(3)}, {A(9), A(2), B(3), C(5)}},
        {{}, {}, {}, {}, {}},
        {{A(1)}, {}, {}, {A(1)}, {A(1)}},
        {{}, {A(1), B(2), A(3)}, {}, {}, {A(1), B(2), A(3)}},
        // The n-th meets the n-th, wherever they stand.
        {{A(1), B(2), A(3), C(4)},
         {C(40), A(10), A(30), B(20)},
         {A(10), B(20), A(30), C(40)},
         {A(10), B(20), A(30), C(40)},
         {A(10), B(20), A(30), C(40)}},
        // A surplus in the source comes behind, in its order.
        {{B(1), A(2)},
         {A(10), A(11), B(12), B(13), A(14), D(15)},
         {B(12), A(10)},
         {B(12), A(10)},
         {B(12), A(10), A(11), B(13), A(14), D(15)}},
        // Values of all sizes; the same number under another type is another key.
        {{stored(5, t("s")), wide, stored(6, a("1")), stored(1, s(1)), big},
         {A(1), bytes, text, stored(7, d(2.5)), stored(8, l(5))},
         {text, stored(7, d(2.5)), bytes, stored(8, l(5))},
         {text, stored(7, d(2.5)), bytes, stored(1, s(1)), stored(8, l(5))},
         {text, stored(7, d(2.5)), bytes, stored(1, s(1)), stored(8, l(5)), A(1)}},
        {{text, other}, {other}, {other}, {other, other}, {other, other}},
        {{stored(1, c('a')), stored(2, f(1.5)), big},
         {stored(1, c('b')), stored(2, f(2.5)), stored(8, l(-7))},
         {stored(1, c('b')), stored(2, f(2.5)), stored(8, l(-7))},
         {stored(1, c('b')), stored(2, f(2.5)), stored(8, l(-7))},
         {stored(1, c('b')), stored(2, f(2.5)), stored(8, l(-7))}},
    };
}

void expect_combined(const combination &each, int op, const fields &wanted)
{
    SCOPED_TRACE(testing::Message() << "operation " << op);
    Buffer dest, src;
    fill(dest, each.dest);
    fill(src, each.src);
    std::string source = whole(src);
    int capacity = head(dest)->bufsize;
    EXPECT_EQ(fbbufop(dest, src, op), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(content(dest), wanted);
    EXPECT_EQ(whole(src), source);
    EXPECT_EQ(head(dest)->bufsize, capacity);
    EXPECT_EQ(fbisfbuf(dest), 1);
}

}  // namespace

// ---- arguments

TEST(BufferOperation, NeedsTwoBuffersAndAKnownNumber)
{
    Buffer dest({A(1)}), src({B(2)});
    for (int op = 0; op <= 8; op++) {
        EXPECT_EQ(fbbufop(nullptr, src, op), -1);
        EXPECT_EQ(getfberror(), FBEINVAL);
        EXPECT_EQ(fbbufop(dest, nullptr, op), -1);
        EXPECT_EQ(getfberror(), FBEINVAL);
        EXPECT_EQ(fbbufop(nullptr, nullptr, op), -1);
        EXPECT_EQ(getfberror(), FBEINVAL);
    }
    for (int op : {0, 8, -1, 100, 0x7fffffff})
        expect_refused(dest, src, op, FBEINVAL);
}

TEST(BufferOperation, CopiesNeedTheMarkOfAFieldBuffer)
{
    Buffer dest({A(1)}), src({B(2)});
    set_word((char *)src.fbuf, 1234);
    expect_refused(dest, src, FB_MOVE, FBEINVAL);
    expect_refused(dest, src, FB_COPY, FBEINVAL);
    set_word((char *)src.fbuf, 8888);
    set_word((char *)dest.fbuf, 1234);
    expect_refused(dest, src, FB_COPY, FBEINVAL);
    EXPECT_EQ(fbbufop(dest, src, FB_MOVE), 1);  // looks at the source alone
    EXPECT_EQ(content(dest), fields{B(2)});
    EXPECT_EQ(fbisfbuf(dest), 1);
}

TEST(BufferOperation, ConcatenationLooksAtNoMark)
{
    Buffer dest({A(1)}), src({B(2)});
    set_word((char *)src.fbuf, 1234);
    set_word((char *)dest.fbuf, 4321);
    EXPECT_EQ(fbbufop(dest, src, FB_CONCAT), 1);
    EXPECT_EQ(word_at((char *)dest.fbuf), 4321);
    EXPECT_EQ(content(dest), (fields{A(1), B(2)}));
}

// ---- copies

TEST(BufferMove, CopiesTheUnusedRoomToo)
{
    Buffer dest({A(1), A(2), A(3)}), src({B(2)});
    ((char *)src.fbuf)[500] = 'x';
    src.mark(0);
    EXPECT_EQ(fbbufop(dest, src, FB_MOVE), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(whole(dest), whole(src));
}

TEST(BufferMove, LeavesWhatIsBehindTheSourcesCapacity)
{
    Buffer dest(200), src({B(2)});
    ((char *)dest.fbuf)[1500] = 'y';
    EXPECT_EQ(fbbufop(dest, src, FB_MOVE), 1);
    EXPECT_EQ(whole(dest).substr(0, (size_t)src.full), whole(src));
    EXPECT_EQ(((char *)dest.fbuf)[1500], 'y');
    EXPECT_EQ(head(dest)->bufsize, dest.full);
}

TEST(BufferMove, IntoASmallerBufferKeepsWhatFits)
{
    Buffer dest, src;
    for (int n = 0; n < 100; n++)
        src.add(A(n));
    dest.room(8 + 8 * 10 + 4);
    EXPECT_EQ(fbbufop(dest, src, FB_MOVE), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_LE(used(dest), head(dest)->bufsize);
    fields found = content(dest);
    ASSERT_EQ(found.size(), 10u);
    for (int n = 0; n < 10; n++)
        EXPECT_EQ(found[(size_t)n], A(n));
}

TEST(BufferMove, IntoASmallerBufferThatHoldsAll)
{
    Buffer dest, src({A(1), B(2)});
    dest.room(24);
    EXPECT_EQ(fbbufop(dest, src, FB_MOVE), 1);
    EXPECT_EQ(content(dest), (fields{A(1), B(2)}));
}

TEST(BufferCopy, CopiesTheUsedPartWithItsMarks)
{
    Buffer dest({A(1), A(2), A(3)}), src({B(2), C(3)});
    src.mark(1);
    ((char *)src.fbuf)[500] = 'x';
    std::string before = whole(dest);
    EXPECT_EQ(fbbufop(dest, src, FB_COPY), 1);
    EXPECT_EQ(whole(dest), used_part(src) + before.substr((size_t)used(src)));
}

TEST(BufferCopy, FitsExactlyOrNotAtAll)
{
    Buffer dest({A(1)}), src({B(2), C(3), stored(5, t("text of 16 bytes"))});
    dest.room(used(src) - 1);
    expect_refused(dest, src, FB_COPY, FBENOSPACE);
    Buffer exact({A(1)});
    exact.room(used(src));
    EXPECT_EQ(fbbufop(exact, src, FB_COPY), 1);
    EXPECT_EQ(used_part(exact), used_part(src));
}

TEST(BufferCopy, OntoItselfChangesNothing)
{
    Buffer buffer({A(1), stored(5, t("text")), A(2)});
    std::string before = whole(buffer);
    for (int op : {FB_MOVE, FB_COPY, FB_OUTER_JOIN, FB_JOIN, FB_UPDATE}) {
        EXPECT_EQ(fbbufop(buffer, buffer, op), 1) << op;
        EXPECT_EQ(content(buffer), (fields{A(1), stored(5, t("text")), A(2)})) << op;
    }
    EXPECT_EQ(fbbufop(buffer, buffer, FB_COMPARE), 0);
    EXPECT_EQ(fbbufop(buffer, buffer, FB_CONCAT), 1);
    EXPECT_EQ(content(buffer), (fields{A(1), stored(5, t("text")), A(2), A(1), stored(5, t("text")), A(2)}));
}

// ---- comparison

TEST(BufferComparison, TellsHowDestStandsToSource)
{
    const struct {
        fields dest, src;
        int result;
    } cases[] = {
        {{}, {}, 0},
        {{A(1), B(2)}, {A(1), B(2)}, 0},
        {{A(1)}, {A(1), B(2)}, -1},        // shorter
        {{D(1)}, {A(1), B(2)}, -1},        // the length comes first
        {{A(1), B(2)}, {A(1), C(2)}, -1},  // a lower key
        {{A(1), C(2)}, {A(1), B(2)}, 1},   // no lower key
        {{A(1), B(2)}, {A(1), B(3)}, 1},   // values don't count
        {{A(1), B(3)}, {A(1), B(2)}, 1},
        {{C(1), A(2)}, {B(1), D(2)}, -1},  // a later lower key
        {{stored(1, s(1))}, {A(1)}, -1},   // the type is the key's highest part
        {{stored(5, t("a longer text here"))}, {stored(4, t("abc"))}, 1},
        {{stored(5, t("a longer text")), A(1)}, {stored(5, t("shrt")), B(1)}, -1},
    };
    for (const auto &each : cases) {
        Buffer dest, src;
        fill(dest, each.dest);
        fill(src, each.src);
        std::string before = whole(dest), source = whole(src);
        EXPECT_EQ(fbbufop(dest, src, FB_COMPARE), each.result)
            << testing::PrintToString(each.dest) << " and " << testing::PrintToString(each.src);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_EQ(whole(dest), before);
        EXPECT_EQ(whole(src), source);
    }
}

TEST(BufferComparison, KeysAreSigned)
{
    Buffer dest, src;
    dest.add_raw((int32_t)0x80000001, 1);
    src.add_raw(KEY_A, 1);
    EXPECT_EQ(fbbufop(dest, src, FB_COMPARE), -1);
    EXPECT_EQ(fbbufop(src, dest, FB_COMPARE), 1);
}

TEST(BufferComparison, EqualContentInAnotherCapacityIsNotEqual)
{
    Buffer dest({A(1)}), src(300);
    src.add(A(1));
    EXPECT_EQ(fbbufop(dest, src, FB_COMPARE), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(fbbufop(src, dest, FB_COMPARE), 1);
}

TEST(BufferComparison, ReadingChangesIt)
{
    Buffer dest({A(1), B(2)}), src({A(1), B(2)});
    EXPECT_EQ(fbbufop(dest, src, FB_COMPARE), 0);
    int value, length = 0;
    EXPECT_EQ(fbget(dest, KEY_A, (char *)&value, &length), 1);
    EXPECT_EQ(fbbufop(dest, src, FB_COMPARE), 1);  // the mark makes its key the greater one
    EXPECT_EQ(fbbufop(src, dest, FB_COMPARE), -1);
}

TEST(BufferComparison, DoesNotLookBehindEitherEnd)
{
    Buffer dest({stored(5, t("1234567890123456789012345")), A(1)}), src({stored(4, t("abc"))});
    src.room(used(src));
    EXPECT_EQ(fbbufop(dest, src, FB_COMPARE), 1);
    dest.room(used(dest));
    EXPECT_EQ(fbbufop(dest, src, FB_COMPARE), 1);
}

// ---- appending

TEST(BufferConcatenation, KeepsOrderDuplicatesAndMarks)
{
    Buffer dest({A(1), B(2)}), src({B(2), A(1), C(3)});
    src.mark(1);
    dest.mark(0);
    EXPECT_EQ(fbbufop(dest, src, FB_CONCAT), 1);
    EXPECT_EQ(getfberror(), 0);
    field read_a = A(1);
    read_a.key |= READ_MARK;
    EXPECT_EQ(content(dest), (fields{read_a, B(2), B(2), read_a, C(3)}));
}

TEST(BufferConcatenation, FitsExactlyOrNotAtAll)
{
    Buffer src({B(2), stored(7, d(1.5))});
    Buffer dest({A(1)});
    dest.room(used(dest) + used(src) - 8 - 1);
    expect_refused(dest, src, FB_CONCAT, FBENOSPACE);
    Buffer exact({A(1)});
    exact.room(used(exact) + used(src) - 8);
    EXPECT_EQ(fbbufop(exact, src, FB_CONCAT), 1);
    EXPECT_EQ(content(exact), (fields{A(1), B(2), stored(7, d(1.5))}));
    EXPECT_EQ(used(exact), head(exact)->bufsize);
    Buffer nothing;
    EXPECT_EQ(fbbufop(exact, nothing, FB_CONCAT), 1);
    EXPECT_EQ(content(exact).size(), 3u);
}

// ---- joins

TEST(BufferJoin, KeepsWhatHasAPartner)
{
    for (const combination &each : combinations())
        expect_combined(each, FB_JOIN, each.join);
}

TEST(BufferJoin, OuterKeepsAllOfDest)
{
    for (const combination &each : combinations())
        expect_combined(each, FB_OUTER_JOIN, each.outer);
}

TEST(BufferJoin, UpdateAppendsTheRest)
{
    for (const combination &each : combinations())
        expect_combined(each, FB_UPDATE, each.update);
}

TEST(BufferJoin, MarksDoNotCountAndDoNotStay)
{
    for (int op : {FB_JOIN, FB_OUTER_JOIN, FB_UPDATE}) {
        Buffer dest({A(1), A(2)}), src({A(10), A(20)});
        dest.mark(0);
        src.mark(1);
        EXPECT_EQ(fbbufop(dest, src, op), 1);
        EXPECT_EQ(content(dest), (fields{A(10), A(20)})) << op;
    }
    Buffer dest({A(1), B(2)}), none;
    dest.mark(0).mark(1);
    EXPECT_EQ(fbbufop(dest, none, FB_OUTER_JOIN), 1);
    EXPECT_EQ(content(dest), (fields{A(1), B(2)}));
}

TEST(BufferJoin, FillsDestToItsLastByteOrLeavesIt)
{
    field text = stored(5, t("1234567890123456789"));  // 24 bytes
    Buffer src({A(10), text, C(1)});
    const struct {
        int op, size;
    } cases[] = {{FB_JOIN, 8 + 8 + 24}, {FB_OUTER_JOIN, 8 + 8 + 24 + 8}, {FB_UPDATE, 8 + 8 + 24 + 8 + 8}};
    for (const auto &each : cases) {
        fields start = {A(1), stored(5, t("x")), B(2)};
        Buffer small, exact;
        fill(small, start);
        fill(exact, start);
        small.room(each.size - 1);
        expect_refused(small, src, each.op, FBENOSPACE);
        exact.room(each.size);
        EXPECT_EQ(fbbufop(exact, src, each.op), 1);
        EXPECT_EQ(used(exact), each.size) << each.op;
    }
}

TEST(BufferJoin, NoMemoryLeavesDestAsItWas)
{
    for (int op : {FB_JOIN, FB_OUTER_JOIN, FB_UPDATE}) {
        Buffer dest({A(1), B(2)}), src({A(10), C(3)});
        int failures = 0;
        for (int nth = 1; nth < 50; nth++, failures++) {
            std::string before = whole(dest);
            faults::fail_allocation(nth);
            int result = fbbufop(dest, src, op);
            bool failed = faults::allocation_failed();
            int error = getfberror();
            faults::reset();
            if (!failed) {
                EXPECT_EQ(result, 1);
                break;
            }
            EXPECT_EQ(result, -1);
            EXPECT_EQ(error, FBEMALLOC);
            EXPECT_EQ(whole(dest), before);
        }
        EXPECT_GE(failures, 1) << op;
    }
}

TEST(BufferOperation, ForgetsTheRememberedPlacesOfDest)
{
    for (int op = 1; op <= 7; op++) {
        Buffer dest({A(1), A(2), B(3)}), src({C(9), A(8)});
        fbgetval(dest, KEY_A, 1, nullptr);
        fbgetval(src, KEY_A, 0, nullptr);
        ASSERT_TRUE(cached(dest, KEY_A));
        fbbufop(dest, src, op);
        EXPECT_FALSE(cached(dest, KEY_A)) << op;
        EXPECT_TRUE(cached(src, KEY_A)) << op;
    }
    Buffer dest({A(1), A(2)}), src({A(8)});
    fbgetval(dest, KEY_A, 1, nullptr);
    EXPECT_EQ(fbbufop(dest, src, 8), -1);
    EXPECT_FALSE(cached(dest, KEY_A));
}

TEST(BufferOperation, SearchesGoOnInTheNewContent)
{
    Buffer dest({A(1), A(2), A(3), B(4)}), src({stored(5, t("front")), B(7), A(8), A(9)});
    EXPECT_EQ(*(int *)fbgetval(dest, KEY_A, 2, nullptr), 3);
    EXPECT_EQ(*(int *)fbgetval(dest, KEY_B, 0, nullptr), 4);
    EXPECT_EQ(fbbufop(dest, src, FB_COPY), 1);
    EXPECT_EQ(fbgetval(dest, KEY_A, 2, nullptr), nullptr);
    EXPECT_EQ(*(int *)fbgetval(dest, KEY_A, 1, nullptr), 9);
    EXPECT_EQ(*(int *)fbgetval(dest, KEY_B, 0, nullptr), 7);
}

// ---- the list behind the joins

TEST(FieldList, HasAnItemForEachEntry)
{
    Buffer buffer({A(1), stored(5, t("text")), B(3)});
    buffer.mark(0);
    buffer.add_raw(0, 5).add(C(4));
    flist_item *list = _make_flist(buffer);
    ASSERT_NE(list, nullptr);
    const int keys[] = {KEY_A, key_of(FB_STRING, 5), KEY_B, KEY_C, 0};
    const int offsets[] = {8, 16, 32, 48};
    for (int n = 0; n < 5; n++) {
        EXPECT_EQ(list[n].key, keys[n]) << n;
        if (n < 4) {
            EXPECT_EQ(list[n].checked, 0) << n;
            EXPECT_EQ((char *)list[n].entry, (char *)buffer.fbuf + offsets[n]) << n;
        }
    }
    free(list);
    Buffer empty;
    list = _make_flist(empty);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0].key, 0);
    free(list);
    faults::fail_allocation(1);
    EXPECT_EQ(_make_flist(buffer), nullptr);
}

TEST(FieldList, PairsTheFirstUncheckedItem)
{
    Buffer dest({A(1), B(2), A(3)}), src({A(10), A(20), A(30), C(1)});
    flist_item *list = _make_flist(dest), *other = _make_flist(src);
    ASSERT_TRUE(list != nullptr && other != nullptr);
    EXPECT_EQ(_update_unchecked(list, &other[0]), 0);
    EXPECT_EQ(list[0].entry, other[0].entry);
    EXPECT_EQ(list[0].checked, 1);
    EXPECT_EQ(_update_unchecked(list, &other[1]), 2);
    EXPECT_EQ(list[2].entry, other[1].entry);
    EXPECT_EQ(_update_unchecked(list, &other[2]), -1);
    EXPECT_EQ(_update_unchecked(list, &other[3]), -1);
    EXPECT_EQ(list[1].checked, 0);
    free(list);
    free(other);
}

// ---- projections

TEST(Projection, OfABufferOnItself)
{
    const struct {
        std::vector<int> keys;
        fields left;
    } cases[] = {
        {{KEY_A, 0}, {A(1), A(2)}},
        {{0}, {}},
        {{0, KEY_A}, {}},
        {{KEY_C, KEY_A, KEY_A, 0}, {A(1), C(3), A(2)}},
        {{KEY_A, KEY_B, KEY_C, key_of(FB_STRING, 5), 0}, {B(4), A(1), C(3), A(2), stored(5, t("text"))}},
        {{key_of(FB_SHORT, 1), 0}, {}},
    };
    for (const auto &each : cases) {
        Buffer buffer({B(4), A(1), C(3), A(2), stored(5, t("text"))});
        std::vector<int> keys = each.keys;
        EXPECT_EQ(fbbufop_proj(buffer, nullptr, &keys[0]), 1);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_EQ(content(buffer), each.left);
        EXPECT_EQ(used(buffer), each.left.empty() ? 8 : used(buffer));
        EXPECT_EQ(fbisfbuf(buffer), 1);
    }
}

TEST(Projection, OverwritesTheTarget)
{
    Buffer dest({A(7), A(8), A(9), B(1)}), src({B(4), stored(5, t("text")), A(1)});
    std::string source = whole(src);
    int keys[] = {key_of(FB_STRING, 5), KEY_A, 0};
    EXPECT_EQ(fbbufop_proj(dest, src, keys), 1);
    EXPECT_EQ(content(dest), (fields{stored(5, t("text")), A(1)}));
    EXPECT_EQ(whole(src), source);
    int none[] = {0};
    EXPECT_EQ(fbbufop_proj(dest, src, none), 1);
    EXPECT_EQ(used(dest), 8);
}

TEST(Projection, LeavesTheTargetsFirstWordAlone)
{
    Buffer dest({A(7)}), src({B(4)});
    set_word((char *)dest.fbuf, 4321);
    int keys[] = {KEY_B, 0};
    EXPECT_EQ(fbbufop_proj(dest, src, keys), 1);
    EXPECT_EQ(word_at((char *)dest.fbuf), 4321);
    EXPECT_EQ(content(dest), fields{B(4)});
}

TEST(Projection, WholeKeyWordsMatch)
{
    Buffer dest, src({A(1), A(2), B(3)});
    src.mark(0);
    int keys[] = {KEY_A, KEY_B, 0};
    EXPECT_EQ(fbbufop_proj(dest, src, keys), 1);
    EXPECT_EQ(content(dest), (fields{A(2), B(3)}));
    field marked = A(1);
    marked.key |= READ_MARK;
    int with_mark[] = {marked.key, 0};
    EXPECT_EQ(fbbufop_proj(dest, src, with_mark), 1);
    EXPECT_EQ(content(dest), fields{marked});
}

TEST(Projection, NeverLeavesTheTarget)
{
    Buffer dest, src;
    for (int n = 0; n < 50; n++)
        src.add(A(n));
    dest.room(8 + 8 * 10);
    int keys[] = {KEY_A, 0};
    EXPECT_EQ(fbbufop_proj(dest, src, keys), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    Buffer exact;
    exact.room(8 + 8 * 50);
    EXPECT_EQ(fbbufop_proj(exact, src, keys), 1);
    EXPECT_EQ(content(exact).size(), 50u);
    src.add(B(1));  // more than has room, but not all of it is wanted
    EXPECT_EQ(fbbufop_proj(exact, src, keys), 1);
    EXPECT_EQ(content(exact).size(), 50u);
    exact.room(8 + 8 * 50 - 1);
    std::string before = whole(exact);
    EXPECT_EQ(fbbufop_proj(exact, src, keys), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(whole(exact), before);
}

TEST(Projection, SearchesOfTheTargetFindItsNewContent)
{
    Buffer dest({B(1), A(1), A(2)}), src({A(8), A(9), stored(5, t("text"))});
    EXPECT_NE(fbgetval(dest, KEY_A, 1, nullptr), nullptr);
    int keys[] = {KEY_A, 0};
    EXPECT_EQ(fbbufop_proj(dest, src, keys), 1);
    EXPECT_EQ(fbkeyoccur(dest, KEY_A), 2);
    EXPECT_EQ(*(int *)fbgetval(dest, KEY_A, 0, nullptr), 8);
    EXPECT_EQ(*(int *)fbgetval(dest, KEY_A, 1, nullptr), 9);
    EXPECT_NE(fbgetval(dest, KEY_A, 1, nullptr), nullptr);
    // Where a remembered place has an entry of the same key, but another occurrence.
    Buffer mixed({A(1), B(1), A(2), A(3)}), other({A(5), A(6), A(7)});
    EXPECT_NE(fbgetval(mixed, KEY_A, 1, nullptr), nullptr);
    EXPECT_EQ(fbbufop_proj(mixed, other, keys), 1);
    EXPECT_EQ(*(int *)fbgetval(mixed, KEY_A, 1, nullptr), 6);
    int only_text[] = {key_of(FB_STRING, 5), 0};
    EXPECT_EQ(fbbufop_proj(dest, nullptr, only_text), 1);
    EXPECT_EQ(fbkeyoccur(dest, KEY_A), 0);
}

TEST(Projection, Refusals)
{
    Buffer buffer({A(1), B(2)});
    int keys[] = {KEY_A, 0};
    EXPECT_EQ(fbbufop_proj(nullptr, buffer, keys), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(fbbufop_proj(nullptr, nullptr, keys), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    std::string before = whole(buffer);
    faults::fail_allocation(1);
    EXPECT_EQ(fbbufop_proj(buffer, nullptr, keys), -1);
    EXPECT_EQ(getfberror(), FBEMALLOC);
    EXPECT_EQ(whole(buffer), before);
    faults::reset();
    EXPECT_EQ(fbbufop_proj(buffer, nullptr, keys), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(content(buffer), fields{A(1)});
}

// ---- buffers that lie about themselves

// A used length beyond the capacity, an entry beyond the used length: nothing behind the buffer is touched,
// whatever the operation makes of the rest.
TEST(BufferOperation, StaysInsideBuffersThatLie)
{
    for (int lie : {-1, 0, 7, 9, 100000, 0x7fffffff, (int)0x80000000})
        for (int op = 1; op <= 7; op++)
            for (bool in_dest : {false, true}) {
                Buffer dest({A(1), stored(5, t("text"))}), src({A(2), stored(6, a("bytes"))});
                dest.room(64);
                src.room(64);
                set_word((char *)(in_dest ? dest : src).fbuf + 4, lie);
                fbbufop(dest, src, op);
                set_word((char *)(in_dest ? dest : src).fbuf + 4, lie);
                int keys[] = {KEY_A, key_of(FB_CARRAY, 6), 0};
                fbbufop_proj(dest, src, keys);
                fbbufop_proj(src, nullptr, keys);
            }
}

TEST(BufferOperation, StaysInsideEntriesThatLie)
{
    for (int length : {-1, -8, (int)0x80000000, 1000, 0x7fffffff, 0x7ffffff0})
        for (int op = 1; op <= 7; op++) {
            Buffer dest({A(1)}), src({A(2)});
            dest.add_raw(key_of(FB_CARRAY, 6), length).add(A(3));
            src.add_raw(key_of(FB_CARRAY, 6), length).add(A(4));
            dest.room(64);
            src.room(64);
            fbbufop(dest, src, op);
            int keys[] = {KEY_A, key_of(FB_CARRAY, 6), 0};
            fbbufop_proj(dest, src, keys);
        }
}
