// Searches by key, and their cache.
#include "fields/fbcommon2.h"

#include <atomic>
#include <limits.h>
#include <stdlib.h>

// Whoever changes a slot claims it first; who can't does without, as a miss costs a walk and nothing else. A
// buffer is one thread's at a time, so a slot that names it before and after its words were read was whole in
// between.
template <typename Word> static Word load(Word &word)
{
    return std::atomic_ref<Word>(word).load(std::memory_order_acquire);
}

template <typename Word> static void store(Word &word, Word value)
{
    std::atomic_ref<Word>(word).store(value, std::memory_order_release);
}

static FBUF *const CLAIMED = (FBUF *)1;

static bool claim(fcache_slot *slot, FBUF *held)
{
    return held != CLAIMED && std::atomic_ref<FBUF *>(slot->fbuf).compare_exchange_strong(held, CLAIMED);
}

extern "C" {

static uint32_t slot_number(const FBUF *fbuf, int key)
{
    uint32_t address = (uint32_t)(uintptr_t)fbuf;
    return (((address & 0xfff00u) >> 10) + (uint32_t)key) % FCACHE_SLOTS;
}

// The table, made if there is none. Of two threads that make it at once one gives its own back.
static fcache_slot *table_of(wthr_var *block)
{
    fcache_slot *table = block->fcache.load(std::memory_order_acquire);
    if (table != nullptr)
        return table;
    fcache_slot *made = (fcache_slot *)calloc(FCACHE_SLOTS, sizeof(fcache_slot));
    if (made == nullptr || block->fcache.compare_exchange_strong(table, made))
        return made;
    free(made);
    return table;
}

// Marks the slot as one that a clearing has to look at.
static void mark_live(wthr_var *block, uint32_t number)
{
    block->fcache_live[number / 64].fetch_or(1ull << number % 64);
}

static int enter(wthr_var *block, FBUF *fbuf, int key, int nth, int offset)
{
    fcache_slot *table = table_of(block);
    if (table == nullptr)
        return -1;
    uint32_t number = slot_number(fbuf, key);
    fcache_slot *slot = &table[number];
    FBUF *held = load(slot->fbuf);
    if (held == fbuf && load(slot->key) != key)
        return -1;  // the older entry stays
    if (!claim(slot, held))
        return -1;
    store(slot->key, key);
    store(slot->nth, nth);
    store(slot->offset, offset);
    if (held != fbuf)
        mark_live(block, number);
    store(slot->fbuf, fbuf);
    return (int)number;
}

// The place that serves a search for occurrence `nth`, as it stands in its slot; `fbuf` is null if there is
// none.
static fcache_slot serving_slot(wthr_var *block, const FBUF *fbuf, int key, int nth)
{
    fcache_slot none = {};
    fcache_slot *table = block->fcache.load(std::memory_order_acquire);
    if (table == nullptr)
        return none;
    fcache_slot *slot = &table[slot_number(fbuf, key)];
    if (load(slot->fbuf) != fbuf)
        return none;
    fcache_slot place = {load(slot->key), load(slot->nth), load(slot->offset), load(slot->fbuf)};
    return place.fbuf == fbuf && place.key == key && place.nth <= nth ? place : none;
}

static void clear_places(wthr_var *block, const void *fbuf)
{
    fcache_slot *table = block->fcache.load(std::memory_order_acquire);
    if (table == nullptr)
        return;
    for (int word = 0; word < FCACHE_WORDS; word++) {
        uint64_t live = block->fcache_live[word].load(std::memory_order_relaxed);
        for (; live != 0; live &= live - 1) {
            uint32_t number = (uint32_t)(word * 64 + __builtin_ctzll(live));
            if (load(table[number].fbuf) != fbuf || !claim(&table[number], (FBUF *)fbuf))
                continue;
            block->fcache_live[word].fetch_and(~(1ull << number % 64));
            store(table[number].fbuf, (FBUF *)nullptr);
        }
    }
}

// A buffer that a program has used before its session, or will use behind it, has places with the fall-back
// block too.
static wthr_var *fallback_beside(const wthr_var *block)
{
    return _main_wthrv != block ? _main_wthrv : nullptr;
}

void forget_buffer(wthr_var *block, const void *fbuf)
{
    clear_places(block, fbuf);
    if (wthr_var *fallback = fallback_beside(block))
        clear_places(fallback, fbuf);
}

static void clear_behind(wthr_var *block, FBUF *fbuf, int key, const char *entry)
{
    fcache_slot place = serving_slot(block, fbuf, key, INT_MAX);
    if (place.fbuf == nullptr || place.offset <= entry - first_entry(fbuf))
        return;
    fcache_slot *slot = &block->fcache.load(std::memory_order_relaxed)[slot_number(fbuf, key)];
    if (claim(slot, fbuf))
        store(slot->fbuf, (FBUF *)nullptr);
}

void forget_behind(wthr_var *block, FBUF *fbuf, int key, const char *entry)
{
    clear_behind(block, fbuf, key, entry);
    if (wthr_var *fallback = fallback_beside(block))
        clear_behind(fallback, fbuf, key, entry);
}

// Where a search begins, and with which count.
struct search_start {
    char *entry;
    int nth;
    bool cached;
};

// The cached place only counts if an entry of the key stands there, read or unread.
static search_start start_of(wthr_var *block, FBUF *fbuf, const char *end, int key, int nth)
{
    search_start start = {first_entry(fbuf), 0, false};
    fcache_slot place = serving_slot(block, fbuf, key, nth);
    if (place.fbuf == nullptr)
        return start;
    int32_t offset = place.offset, cached_nth = place.nth;
    if (offset < 0 || offset > end - start.entry - FIELD_ENTRY_UNIT || cached_nth < 0)
        return start;
    char *entry = start.entry + offset;
    if ((get_int32(entry) & ~FIELD_READ_MARK) != (key & ~FIELD_READ_MARK))
        return start;
    return {entry, cached_nth, true};
}

char *find_entry(wthr_var *block, FBUF *fbuf, int key, int nth)
{
    char *end = entries_end(fbuf);
    search_start start = start_of(block, fbuf, end, key, nth);
    int count = start.nth;
    for (entry_walk walk = walk_from(start.entry, end); walk.size > 0; next_entry(&walk)) {
        if (get_int32(walk.entry) != key)
            continue;
        if (count == nth) {
            if (!start.cached || walk.entry != start.entry)
                enter(block, fbuf, key, count, (int)(walk.entry - first_entry(fbuf)));
            return walk.entry;
        }
        count++;
    }
    return nullptr;
}

int count_entries(wthr_var *block, FBUF *fbuf, int key)
{
    constexpr int BOOKMARK_DISTANCE = 10;
    char *end = entries_end(fbuf);
    search_start start = start_of(block, fbuf, end, key, INT_MAX);
    int count = start.nth, bookmark = start.nth;
    for (entry_walk walk = walk_from(start.entry, end); walk.size > 0; next_entry(&walk)) {
        if (get_int32(walk.entry) != key)
            continue;
        if (count - bookmark > BOOKMARK_DISTANCE) {
            enter(block, fbuf, key, count, (int)(walk.entry - first_entry(fbuf)));
            bookmark = count;
        }
        count++;
    }
    return count;
}

char *_find_matching_fldkey(FBUF *fbuf, int key, int nth)
{
    wthr_var *block = current_block();
    return block == nullptr ? nullptr : find_entry(block, fbuf, key, nth);
}

int _clear_fcache(const void *fbuf)
{
    wthr_var *block = current_block();
    if (block == nullptr)
        return -1;
    forget_buffer(block, fbuf);
    return block->fcache.load(std::memory_order_relaxed) != nullptr ? 1 : -1;
}

int _srch_fcache(FBUF *fbuf, int key, int nth, int *nth_out, int *offset_out)
{
    wthr_var *block = current_block();
    fcache_slot place = {};
    if (block != nullptr)
        place = serving_slot(block, fbuf, key, nth);
    if (place.fbuf == nullptr)
        return -1;
    *nth_out = place.nth;
    *offset_out = place.offset;
    return (int)slot_number(fbuf, key);
}

int _upd_fcache(FBUF *fbuf, int key, int nth, int offset)
{
    wthr_var *block = current_block();
    return block == nullptr ? -1 : enter(block, fbuf, key, nth, offset);
}

char *_find_matching_fldkey_from(FBUF *fbuf, int key, int nth, int *from)
{
    // A cursor at or behind the used length finds nothing; the used length counts the head, which the cursor
    // doesn't.
    if (*from >= used_of(fbuf))
        return nullptr;
    char *first = first_entry(fbuf), *end = entries_end(fbuf);
    bool fits = *from >= 0 && *from <= end - first - FIELD_ENTRY_UNIT;
    if (!fits || (get_int32(first + *from) & ~FIELD_READ_MARK) != key)
        *from = 0;
    int count = 0;
    for (entry_walk walk = walk_from(first + *from, end); walk.size > 0; next_entry(&walk)) {
        if (get_int32(walk.entry) != key)
            continue;
        if (count == 0)
            *from = (int)(walk.entry - first);
        if (count == nth)
            return walk.entry;
        count++;
    }
    return nullptr;
}
}
