// A field buffer as a plain list of keys and values, and what each call makes of it: the measure for the
// random test. Slow and simple on purpose.
#ifndef VORN_TESTS_FIELDS_MODEL_H
#define VORN_TESTS_FIELDS_MODEL_H

#include "support/fieldbuffer.h"
#include "vorn/errors.h"

#include <algorithm>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

namespace model {

using fld::list;

enum mode { OLD, TRUNCATE, ERROR };

// What a call gives: its result, fberror, and the bytes and length that it delivers.
struct outcome {
    long result = 1;
    int error = 0;
    std::string bytes = "";
    int len = 0;
};

inline outcome failed(int error, long result = -1)
{
    return {result, error, "", 0};
}

template <typename T> T as(const std::string &bytes)
{
    T value{};
    memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
    return value;
}

inline std::string print(const char *format, auto value)
{
    char text[512];
    snprintf(text, sizeof text, format, value);
    return text;
}

// --- Values of one type as another. `value` is what the caller hands over, or what stands in an entry.

// Low bytes of an integer, or the number, at the width of the target.
inline std::string as_number(int type, int64_t whole, double real, bool is_real)
{
    switch (type) {
    case fld::CHAR:
        return fld::raw((int8_t)whole);
    case fld::SHORT:
        return fld::raw((int16_t)whole);
    case fld::INT:
        return fld::raw((int32_t)whole);
    case fld::LONG:
        return fld::raw(whole);
    case fld::FLOAT:
        return fld::raw(is_real ? (float)real : (float)whole);
    }
    return fld::raw(is_real ? real : (double)whole);
}

inline std::string text_as_number(int type, const std::string &text)
{
    if (type == fld::CHAR)
        return std::string(1, text.empty() ? '\0' : text[0]);
    if (type == fld::FLOAT || type == fld::DOUBLE)
        return as_number(type, 0, strtod(text.c_str(), nullptr), true);
    return as_number(type, (int32_t)strtol(text.c_str(), nullptr, 10), 0, false);
}

inline std::string trimmed(std::string text)
{
    while (!text.empty() && text.back() == '0')
        text.pop_back();
    if (!text.empty() && text.back() == '.')
        text.pop_back();
    return text;
}

// The number in a value, and its text. Integers count as signed, or, as the reading of entries has it, as
// unsigned but for a char.
struct number {
    int64_t whole = 0;
    double real = 0;
    bool is_real = false;
    std::string text;
};

inline number number_of(int type, const std::string &value, bool stored)
{
    number n;
    switch (type) {
    case fld::CHAR:
        n.whole = as<int8_t>(value);
        n.text = std::string(1, value[0]).c_str();
        return n;
    case fld::SHORT:
        n.whole = stored ? (int64_t)as<uint16_t>(value) : as<int16_t>(value);
        n.text = print("%d", (int)n.whole);
        return n;
    case fld::INT:
        n.whole = stored ? (int64_t)as<uint32_t>(value) : as<int32_t>(value);
        n.text = print("%d", as<int32_t>(value));
        return n;
    case fld::LONG:
        n.whole = stored ? (int64_t)as<uint32_t>(value) : as<int64_t>(value);
        n.text = stored ? print("%d", as<int32_t>(value)) : print("%ld", as<int64_t>(value));
        return n;
    }
    n.is_real = true;
    n.real = type == fld::FLOAT ? (double)as<float>(value) : as<double>(value);
    n.whole = (int64_t)n.real;
    n.text = print("%f", n.real);
    return n;
}

// A stored value as another type: the text without its NUL for a string.
inline std::string of_entry(const fld::field &one, int type)
{
    int from = fld::type_of(one.key);
    if (from >= fld::STRING)
        return type >= fld::STRING ? one.value : text_as_number(type, one.value);
    number n = number_of(from, one.value, true);
    if (type >= fld::STRING)
        return n.is_real && type == fld::STRING ? trimmed(n.text) : n.text;
    if (n.is_real && type < fld::LONG)
        n.whole = (int32_t)n.whole;
    return as_number(type, n.whole, n.real, n.is_real);
}

// A caller's value (a string without its NUL) as another type.
inline std::string of_value(int from, const std::string &value, int type)
{
    if (from >= fld::STRING)
        return type >= fld::STRING ? value : text_as_number(type, value);
    number n = number_of(from, value, false);
    return type >= fld::STRING ? n.text : as_number(type, n.whole, n.real, n.is_real);
}

// --- The buffer.

struct buffer {
    list fields;
    int32_t capacity = 0;
    mode length_mode = OLD;

    int32_t used() const { return (int32_t)fld::image(fields).size(); }
    int find(int32_t key, int nth) const
    {
        for (size_t i = 0; i < fields.size() && nth >= 0; i++)
            if (fields[i].key == key && nth-- == 0)
                return (int)i;
        return -1;
    }
    int count(int32_t key) const
    {
        return (int)std::count_if(fields.begin(), fields.end(), [&](auto &one) { return one.key == key; });
    }
    int number_of_entry(size_t index) const
    {
        return (int)std::count_if(fields.begin(), fields.begin() + (long)index,
                                  [&](auto &one) { return one.key == fields[index].key; });
    }
    int offset_of(size_t index) const
    {
        return (int)fld::entries(list(fields.begin(), fields.begin() + (long)index)).size();
    }

    // --- Writing. A field's value is as it is stored.

    outcome put(const fld::field &one)
    {
        int type = fld::type_of(one.key);
        bool known = type >= fld::CHAR && type <= fld::CARRAY;
        int size = known ? fld::size_of(one) : 8;
        if (used() + size > capacity)
            return failed(FBENOSPACE);
        if (!known)
            return failed(FBETYPE);
        if (type == fld::CARRAY && one.value.empty())
            return failed(FBEINVAL);
        fields.push_back(one);
        return {};
    }
    outcome insert(const fld::field &one, int nth)
    {
        if (nth < 0)
            return failed(FBEINVAL);
        int occurrences = count(one.key);
        if (occurrences > nth) {
            if (used() + fld::size_of(one) > capacity)
                return failed(FBENOSPACE);
            fields.insert(fields.begin() + find(one.key, nth), one);
            return {};
        }
        if (occurrences < nth && used() + (int64_t)fld::size_of(one) * (nth - occurrences) > capacity)
            return failed(FBENOSPACE);
        bool text = fld::type_of(one.key) >= fld::STRING;
        fld::field null = {one.key, std::string(text ? 0 : one.value.size(), '\0')};
        for (; occurrences < nth; occurrences++) {
            outcome pad = put(null);
            if (pad.error != 0)
                return pad;
        }
        return put(one);
    }
    outcome update(const fld::field &one, int nth)
    {
        int index = find(one.key, nth);
        if (index < 0)
            return failed(FBENOENT);
        fld::field &old = fields[(size_t)index];
        if (used() - fld::size_of(old) + fld::size_of(one) > capacity)
            return failed(FBENOSPACE);
        old = one;
        return {};
    }
    outcome remove(int32_t key, int nth)
    {
        int index = find(key, nth);
        if (index < 0)
            return failed(FBENOENT);
        fields.erase(fields.begin() + index);
        return {};
    }
    outcome remove_all(int32_t key)
    {
        long before = (long)fields.size();
        std::erase_if(fields, [&](auto &one) { return one.key == key; });
        long gone = before - (long)fields.size();
        return gone == 0 ? failed(FBENOENT) : outcome{gone, 0, "", 0};
    }
    outcome change(const fld::field *one, int32_t key, int nth)
    {
        if (nth == -1)
            return put(*one);
        if (one == nullptr)
            return remove(key, nth);
        return find(key, nth) >= 0 ? update(*one, nth) : insert(*one, nth);
    }

    // --- Reading.

    // Text or bytes under the rule of the length mode.
    outcome deliver(const std::string &value, bool text, int given) const
    {
        int full = (int)value.size() + (text ? 1 : 0);
        std::string whole = text ? value + '\0' : value;
        if (given == 0 || given >= full || length_mode == OLD)
            return {1, 0, whole, full};
        if (length_mode == ERROR)
            return {-1, FBENOSPACE, "", full};
        std::string cut = value.substr(0, (size_t)given);
        if (text)
            cut.back() = '\0';
        return {1, 0, cut, given};
    }
    // As it stands; numbers leave the length alone.
    outcome read(size_t index, int given) const
    {
        const fld::field &one = fields[index];
        int type = fld::type_of(one.key);
        if (type >= fld::STRING)
            return deliver(one.value, type == fld::STRING, given);
        return {1, 0, fld::handed_over(one), given};
    }
    outcome read_as(size_t index, int type, int given) const
    {
        if (type < fld::CHAR || type > fld::CARRAY)
            return failed(FBEBADFLD);
        std::string value = of_entry(fields[index], type);
        if (type >= fld::STRING)
            return deliver(value, type == fld::STRING, given);
        return {1, 0, value, (int)value.size()};
    }
    // An occurrence, by a converting or a plain reader; the length is only told on success by the former.
    outcome get(int32_t key, int nth, int given) const
    {
        int index = find(key, nth);
        return index < 0 ? outcome{-1, FBENOENT, "", given} : read((size_t)index, given);
    }
    outcome get_as(int32_t key, int nth, int type, int given) const
    {
        int index = find(key, nth);
        outcome done = index < 0 ? failed(FBENOENT) : read_as((size_t)index, type, given);
        if (done.error != 0)
            done.len = given;
        return done;
    }
    // What a block for the value as another type is sized by.
    int room_for(size_t index, int type) const
    {
        static const int widths[] = {0, 1, 2, 4, 4, 4, 8};
        if (type < fld::STRING)
            return widths[type];
        bool is_text = fld::type_of(fields[index].key) >= fld::STRING;
        return is_text ? (int)fields[index].value.size() + 1 : 100;
    }
    void mark(size_t index) { fields[index].key |= fld::READ; }

    // The first occurrence of a value, `value` as the caller hands it over (a string without its NUL).
    int find_value(int32_t key, const std::string &value) const
    {
        int nth = 0;
        for (const fld::field &one : fields) {
            if (one.key != key)
                continue;
            if (same(one, value))
                return nth;
            nth++;
        }
        return -1;
    }
    static bool same(const fld::field &one, const std::string &value)
    {
        switch (fld::type_of(one.key)) {
        case fld::LONG:
            return (int64_t)as<uint32_t>(one.value) == as<int64_t>(value);
        case fld::FLOAT:
            return as<float>(one.value) == as<float>(value);
        case fld::DOUBLE:
            return as<double>(one.value) == as<double>(value);
        case fld::CARRAY: {
            size_t common = std::min(one.value.size(), value.size());
            return one.value.substr(0, common) == value.substr(0, common);
        }
        }
        return one.value == value;
    }

    // --- Whole buffers.

    outcome replace(const list &result)
    {
        if ((int32_t)fld::image(result).size() > capacity)
            return failed(FBENOSPACE);
        fields = result;
        return {};
    }
    // 5, 6 and 7: partners are the n-th occurrences of one key, read marks apart.
    outcome join(const list &other, int operation)
    {
        list result, rest = other;
        for (fld::field one : fields) {
            one.key &= ~fld::READ;
            auto partner = std::find_if(rest.begin(), rest.end(),
                                        [&](auto &each) { return (each.key & ~fld::READ) == one.key; });
            if (partner != rest.end()) {
                result.push_back({one.key, partner->value});
                rest.erase(partner);
            } else if (operation != 5) {
                result.push_back(one);
            }
        }
        if (operation == 7)
            for (const fld::field &one : rest)
                result.push_back({one.key & ~fld::READ, one.value});
        return replace(result);
    }
    outcome concat(const list &other)
    {
        list result = fields;
        result.insert(result.end(), other.begin(), other.end());
        return replace(result);
    }
    // What of the other has room here.
    outcome move(const list &other)
    {
        fields.clear();
        for (const fld::field &one : other) {
            if (used() + fld::size_of(one) > capacity)
                break;
            fields.push_back(one);
        }
        return {};
    }
    outcome project(const list &source, const std::vector<int> &keys)
    {
        list result;
        for (const fld::field &one : source)
            if (std::find(keys.begin(), keys.end(), one.key) != keys.end())
                result.push_back(one);
        return replace(result);
    }
};

}

#endif
