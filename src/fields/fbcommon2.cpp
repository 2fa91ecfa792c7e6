// Searches by key, and their cache.
#include "fields/fbcommon2.h"

#include <atomic>
#include <limits.h>
#include <stdlib.h>

// Slots are read and written word by word, and nobody owns one: a place counts only if its seal fits, which
// one that two threads have mixed up doesn't. That costs a walk and nothing else.
template <typename Word> static Word load(Word &word)
{
    return std::atomic_ref<Word>(word).load(std::memory_order_relaxed);
}

template <typename Word> static void store(Word &word, Word value)
{
    std::atomic_ref<Word>(word).store(value, std::memory_order_relaxed);
}

extern "C" {

static uint32_t slot_number(const FBUF *fbuf, int key)
{
    uint32_t address = (uint32_t)(uintptr_t)fbuf;
    return (((address & 0xfff00u) >> 10) + (uint32_t)key) % FCACHE_SLOTS;
}

// Behind its slots the table has generations. A buffer's places are of the generation in the row of its
// address, and all are forgotten at once when that goes up; with them those of the buffers that share the
// row. Neighbours on the heap don't, and neither do, mostly, the first ones of several threads' heaps. A
// generation that has places is odd: those of buffers that are filled and not searched don't go up, since
// that costs more than ten puts.
constexpr size_t GENERATIONS = 1024;
constexpr size_t TABLE_SIZE = FCACHE_SLOTS * sizeof(fcache_slot) + GENERATIONS * sizeof(uint32_t);

static std::atomic_ref<uint32_t> generation_of(fcache_slot *table, const void *fbuf)
{
    uintptr_t address = (uintptr_t)fbuf, row = (address >> 3 ^ (address >> 26) * 0x9e3779b1) % GENERATIONS;
    return std::atomic_ref<uint32_t>(((uint32_t *)(table + FCACHE_SLOTS))[row]);
}

static bool has_places(uint32_t generation)
{
    return generation % 2 != 0;
}

// What can't be had from the words of another place, or from this one's in another generation.
static uint32_t seal_of(const fcache_slot *place, uint32_t generation)
{
    uint64_t words = (uint64_t)(uint32_t)place->key << 32 | (uint32_t)place->nth;
    uint64_t where = (uint64_t)(uint32_t)place->offset << 32 ^ (uint64_t)(uintptr_t)place->fbuf;
    uint64_t mixed = (words ^ where * 0x9e3779b97f4a7c15) * 0xd6e8feb86659fd93;
    return (uint32_t)(mixed >> 32) + generation;
}

// The table, made if there is none. Of two threads that make it at once one gives its own back.
static fcache_slot *table_of(wthr_var *block)
{
    fcache_slot *table = block->fcache.load(std::memory_order_acquire);
    if (table != nullptr)
        return table;
    fcache_slot *made = (fcache_slot *)calloc(1, TABLE_SIZE);
    if (made == nullptr || block->fcache.compare_exchange_strong(table, made))
        return made;
    free(made);
    return table;
}

// What the slot holds of the buffer; `fbuf` is null for nothing.
static inline fcache_slot place_in(fcache_slot *table, fcache_slot *slot, const FBUF *fbuf)
{
    if (load(slot->fbuf) != fbuf)
        return {};
    uint32_t generation = generation_of(table, fbuf).load(std::memory_order_relaxed);
    fcache_slot place = {load(slot->key), load(slot->nth), load(slot->offset), load(slot->seal),
                         (FBUF *)fbuf};
    bool whole = has_places(generation) && seal_of(&place, generation) == place.seal;
    return whole ? place : fcache_slot{};
}

static int enter(wthr_var *block, FBUF *fbuf, int key, int nth, int offset)
{
    fcache_slot *table = table_of(block);
    if (table == nullptr)
        return -1;
    uint32_t number = slot_number(fbuf, key);
    fcache_slot *slot = &table[number];
    if (load(slot->key) != key && place_in(table, slot, fbuf).fbuf != nullptr)
        return -1;  // the older entry stays
    std::atomic_ref<uint32_t> row = generation_of(table, fbuf);
    uint32_t generation = row.load(std::memory_order_relaxed);
    if (!has_places(generation))
        generation = row.fetch_or(1, std::memory_order_relaxed) | 1;
    fcache_slot place = {key, nth, offset, 0, fbuf};
    store(slot->key, key);
    store(slot->nth, nth);
    store(slot->offset, offset);
    store(slot->seal, seal_of(&place, generation));
    store(slot->fbuf, fbuf);
    return (int)number;
}

// The place that serves a search for occurrence `nth`; `fbuf` is null if there is none.
static inline fcache_slot serving_slot(wthr_var *block, const FBUF *fbuf, int key, int nth)
{
    fcache_slot *table = block->fcache.load(std::memory_order_acquire);
    if (table == nullptr)
        return {};
    fcache_slot place = place_in(table, &table[slot_number(fbuf, key)], fbuf);
    return place.key == key && place.nth <= nth ? place : fcache_slot{};
}

static void clear_places(wthr_var *block, const void *fbuf)
{
    fcache_slot *table = block->fcache.load(std::memory_order_acquire);
    if (table == nullptr)
        return;
    std::atomic_ref<uint32_t> row = generation_of(table, fbuf);
    if (!has_places(row.load(std::memory_order_relaxed)))
        return;
    if (row.fetch_add(1, std::memory_order_relaxed) != UINT32_MAX)
        return;
    // The row begins anew: nothing may be left of the first time.
    for (int i = 0; i < FCACHE_SLOTS; i++)
        store(table[i].fbuf, (FBUF *)nullptr);
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
    store(block->fcache.load(std::memory_order_relaxed)[slot_number(fbuf, key)].fbuf, (FBUF *)nullptr);
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
static search_start start_of(const fcache_slot *place, FBUF *fbuf, const char *end, int key)
{
    search_start start = {first_entry(fbuf), 0, false};
    if (place->fbuf == nullptr)
        return start;
    int32_t offset = place->offset, cached_nth = place->nth;
    if (offset < 0 || offset > end - start.entry - FIELD_ENTRY_UNIT || cached_nth < 0)
        return start;
    char *entry = start.entry + offset;
    if ((get_int32(entry) & ~FIELD_READ_MARK) != (key & ~FIELD_READ_MARK))
        return start;
    return {entry, cached_nth, true};
}

static char *search_entry(wthr_var *block, FBUF *fbuf, const fcache_slot *place, int key, int nth)
{
    char *end = entries_end(fbuf);
    search_start start = start_of(place, fbuf, end, key);
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

char *find_entry(wthr_var *block, FBUF *fbuf, int key, int nth)
{
    char *first = first_entry(fbuf), *end = entries_end(fbuf);
    fcache_slot place = serving_slot(block, fbuf, key, nth);
    // Most searches end here: this occurrence was looked up before, and its entry stands where it stood.
    bool known = place.fbuf != nullptr && place.nth == nth && nth >= 0 && place.offset >= 0 &&
                 place.offset <= end - first - FIELD_ENTRY_UNIT && get_int32(first + place.offset) == key;
    if (known && entry_size(first + place.offset, end) > 0)
        return first + place.offset;
    return search_entry(block, fbuf, &place, key, nth);
}

int count_entries(wthr_var *block, FBUF *fbuf, int key)
{
    constexpr int BOOKMARK_DISTANCE = 10;
    char *end = entries_end(fbuf);
    fcache_slot place = serving_slot(block, fbuf, key, INT_MAX);
    search_start start = start_of(&place, fbuf, end, key);
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
