// Operations on field buffers as a whole.
//
// All of them copy by lengths that the walks have clamped to the buffers, so neither a used length that lies
// nor an entry that runs past the end leads outside; and all of them take one buffer for both arguments.
#include "fields/fbbufop.h"

#include "fields/fbapi.h"
#include "fields/fbapim.h"
#include "fields/fbcommon2.h"
#include "vorn/buffers.h"

#include <limits.h>
#include <stdlib.h>

extern "C" {

static constexpr api_text FBBUFOP = FB_TEXT("fbbufop", "(%#x, %#x, %d)");
static constexpr api_text FBBUFOP_PROJ = FB_TEXT("fbbufop_proj", "(%#x, %#x, %#x)");

// Bytes in use, head included.
static int64_t used_part(FBUF *fbuf)
{
    return entries_end(fbuf) - bytes_of(fbuf);
}

FBUF *new_temporary(int64_t size)
{
    char *data = size > INT_MAX ? nullptr : tpalloc((char *)"FIELD", (char *)"", (long)size);
    if (data == nullptr)
        set_fberror(FBEMALLOC);
    return (FBUF *)data;
}

static void free_temporary(FBUF *fbuf)
{
    tpfree(bytes_of(fbuf));
}

// --- Copies and comparison.

// A larger buffer is cut to what `dest` holds: its used length then ends with the last whole entry.
static int move_buffer(FBUF *dest, FBUF *src)
{
    if (!has_magic(src))
        return refused(FBEINVAL);
    int32_t room = capacity_of(dest), size = capacity_of(src);
    if (size > room)
        size = room;
    if (size < FB_HEAD_SIZE)
        return refused(FBENOSPACE);
    memmove(dest, src, (size_t)size);
    if (used_of(dest) <= size)
        return 1;
    set_used(dest, size);
    entry_walk walk = walk_of(dest);
    while (walk.size > 0)
        next_entry(&walk);
    set_used(dest, walk.entry - bytes_of(dest));
    return 1;
}

static int copy_used(FBUF *dest, FBUF *src)
{
    if (!has_magic(dest) || !has_magic(src))
        return refused(FBEINVAL);
    int64_t used = used_part(src);
    if (capacity_of(dest) < used)
        return refused(FBENOSPACE);
    memmove(dest, src, (size_t)used);
    set_used(dest, used);
    return 1;
}

// How `dest` stands to `src`. A key that is greater decides nothing: only a smaller one, or the end. Where
// `src` ends first, `dest` is the greater one.
static int compare(FBUF *dest, FBUF *src)
{
    if (capacity_of(dest) == capacity_of(src) && memcmp(dest, src, (size_t)used_part(dest)) == 0)
        return 0;
    if (used_part(dest) < used_part(src))
        return -1;
    entry_walk mine = walk_of(dest), other = walk_of(src);
    while (mine.size > 0 && other.size > 0) {
        if (get_int32(mine.entry) < get_int32(other.entry))
            return -1;
        next_entry(&mine);
        next_entry(&other);
    }
    return 1;
}

static int concat(FBUF *dest, FBUF *src)
{
    int64_t used = used_part(dest), added = used_part(src) - FB_HEAD_SIZE;
    if (used + added > capacity_of(dest))
        return refused(FBENOSPACE);
    memmove(bytes_of(dest) + used, first_entry(src), (size_t)added);
    set_used(dest, used + added);
    return 1;
}

// --- Joins.

flist_item *_make_flist(FBUF *fbuf)
{
    size_t count = 0;
    for (entry_walk walk = walk_of(fbuf); walk.size > 0; next_entry(&walk))
        count++;
    flist_item *list = (flist_item *)malloc((count + 1) * sizeof(flist_item));
    if (list == nullptr)
        return nullptr;
    flist_item *item = list;
    for (entry_walk walk = walk_of(fbuf); walk.size > 0; next_entry(&walk)) {
        int32_t key = get_int32(walk.entry) & ~FIELD_READ_MARK;
        if (key != 0)  // would end the list
            *item++ = {key, 0, walk.entry};
    }
    *item = {0, 0, nullptr};
    return list;
}

// _update_unchecked from item `from` on.
static int pair_item(flist_item *list, int from, flist_item *other)
{
    for (int i = from; list[i].key != 0; i++) {
        if (list[i].key != other->key || list[i].checked != 0)
            continue;
        list[i].entry = other->entry;
        list[i].checked = 1;
        other->checked = 1;
        return i;
    }
    return -1;
}

int _update_unchecked(flist_item *list, flist_item *other)
{
    return pair_item(list, 0, other);
}

// The n-th occurrences of a key in both lists become partners. Two things are remembered, so that lists of
// many occurrences, or in the same order, don't take the square of their length: below `low` everything has a
// partner, and below `from` of a key's row all items of that key: at the end, none of them is left.
static void pair_lists(flist_item *list, flist_item *others)
{
    constexpr uint32_t ROWS = 128;
    struct {
        int32_t key;
        int32_t from;
    } places[ROWS] = {};
    int low = 0, end = 0;
    while (list[end].key != 0)
        end++;
    for (flist_item *other = others; other->key != 0; other++) {
        uint32_t row = ((uint32_t)other->key ^ (uint32_t)other->key >> 22) % ROWS;
        int from = places[row].key == other->key && places[row].from > low ? places[row].from : low;
        int found = pair_item(list, from, other);
        places[row] = {other->key, found < 0 ? end : found + 1};
        while (list[low].checked != 0)
            low++;
    }
}

// Appends the items of a list: all, or those that have (1) or haven't (0) a partner.
enum item_choice { WITHOUT_PARTNER = 0, WITH_PARTNER = 1, ALL_ITEMS };

static int put_items(FBUF *fbuf, const flist_item *list, item_choice choice)
{
    for (const flist_item *item = list; item->key != 0; item++) {
        if (choice != ALL_ITEMS && item->checked != (int32_t)choice)
            continue;
        if (_fbput(fbuf, item->key, value_of(item->entry), length_of(item->entry)) < 0)
            return -1;
    }
    return 1;
}

static int join_lists(FBUF *result, flist_item *list, flist_item *others, int op)
{
    if (list == nullptr || others == nullptr)
        return refused(FBEMALLOC);
    pair_lists(list, others);
    if (put_items(result, list, op == FB_JOIN ? WITH_PARTNER : ALL_ITEMS) < 0)
        return -1;
    return op == FB_UPDATE ? put_items(result, others, WITHOUT_PARTNER) : 1;
}

// The result is made beside `dest`, which stays as it is if that fails.
static int join(FBUF *dest, FBUF *src, int op)
{
    FBUF *made = new_temporary(capacity_of(dest));
    if (made == nullptr)
        return -1;
    flist_item *list = _make_flist(dest), *others = _make_flist(src);
    int result = join_lists(made, list, others, op);
    // It has 8 bytes more than it was asked for.
    if (result > 0 && used_part(made) > capacity_of(dest))
        result = refused(FBENOSPACE);
    if (result > 0)
        memcpy(dest, made, (size_t)used_part(made));
    free(others);
    free(list);
    free_temporary(made);
    return result;
}

static int inner_join(FBUF *dest, FBUF *src)
{
    return join(dest, src, FB_JOIN);
}

static int outer_join(FBUF *dest, FBUF *src)
{
    return join(dest, src, FB_OUTER_JOIN);
}

static int update(FBUF *dest, FBUF *src)
{
    return join(dest, src, FB_UPDATE);
}

int fbbufop(FBUF *dest, FBUF *src, int op)
{
    static int (*const OPERATIONS[])(FBUF *, FBUF *) = {nullptr, move_buffer, copy_used,  compare,
                                                        concat,  inner_join,  outer_join, update};
    static_assert(sizeof OPERATIONS / sizeof *OPERATIONS == FB_UPDATE + 1);
    api_frame frame;
    if (!FB_ENTER(&frame, FBBUFOP, dest, src, op))
        return -1;
    if (dest == nullptr || src == nullptr)
        return fb_fail(&FBBUFOP, FBEINVAL);
    forget_buffer(frame.block, dest);
    if (op < FB_MOVE || op > FB_UPDATE)
        return fb_fail(&FBBUFOP, FBEINVAL);
    int result = OPERATIONS[op](dest, src);
    return op == FB_COMPARE ? fb_return(&FBBUFOP, result) : fb_result(&FBBUFOP, result);
}

// --- Projection.

static bool is_listed(const int *keys, int key)
{
    for (; *keys != 0; keys++)
        if (*keys == key)
            return true;
    return false;
}

static int64_t projected_size(FBUF *src, const int *keys)
{
    int64_t size = FB_HEAD_SIZE;
    for (entry_walk walk = walk_of(src); walk.size > 0; next_entry(&walk))
        if (is_listed(keys, get_int32(walk.entry)))
            size += walk.size;
    return size;
}

// `target` may be `src`: what is kept moves towards the start, never over an entry that is still to come.
static int project(FBUF *target, FBUF *src, const int *keys)
{
    int32_t room = capacity_of(target);
    if (used_part(src) > room && projected_size(src, keys) > room)
        return refused(FBENOSPACE);
    char *to = first_entry(target);
    for (entry_walk walk = walk_of(src); walk.size > 0; next_entry(&walk)) {
        if (!is_listed(keys, get_int32(walk.entry)))
            continue;
        memmove(to, walk.entry, (size_t)walk.size);
        to += walk.size;
    }
    set_used(target, to - bytes_of(target));
    return 1;
}

static int project_on_itself(FBUF *dest, const int *keys)
{
    FBUF *made = new_temporary(capacity_of(dest));
    if (made == nullptr)
        return -1;
    int result = project(made, dest, keys);
    if (result > 0)
        memcpy(dest, made, (size_t)used_part(made));
    free_temporary(made);
    return result;
}

int fbbufop_proj(FBUF *dest, FBUF *src, int *keys)
{
    if (dest == nullptr)
        return refused(FBEINVAL);
    api_frame frame;
    if (!FB_ENTER(&frame, FBBUFOP_PROJ, dest, src, keys))
        return -1;
    if (keys == nullptr)
        return fb_fail(&FBBUFOP_PROJ, FBEINVAL);
    forget_buffer(frame.block, dest);
    int result = src == nullptr ? project_on_itself(dest, keys) : project(dest, src, keys);
    return fb_result(&FBBUFOP_PROJ, result);
}
}
