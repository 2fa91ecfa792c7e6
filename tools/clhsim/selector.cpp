#include "selector.h"

#include "fields.h"
#include "wire.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>

namespace clhsim {

// What two things compared with each other can be; a comparison is the set of those that satisfy it.
constexpr unsigned BELOW = 1, SAME = 2, ABOVE = 4;

struct ComparisonRow {
    std::string_view sign;  // longer ones before their beginnings
    Comparison comparison;
    unsigned satisfied_by;
    bool for_texts;
};
static constexpr ComparisonRow COMPARISONS[] = {
    {"<>", Comparison::UNEQUAL, BELOW | ABOVE, true},
    {"<=", Comparison::AT_MOST, BELOW | SAME, false},
    {">=", Comparison::AT_LEAST, ABOVE | SAME, false},
    {"=", Comparison::EQUAL, SAME, true},
    {"<", Comparison::LESS, BELOW, false},
    {">", Comparison::GREATER, ABOVE, false},
};

static const char BLANKS[] = " \t\r\n";

// Takes `token` from the front of the text, if it stands there.
static bool take(std::string_view &text, std::string_view token)
{
    if (!text.starts_with(token))
        return false;
    text.remove_prefix(token.size());
    return true;
}

static void skip_blanks(std::string_view &text)
{
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
}

static bool in_name(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '$' || c == '.' || (c & 0x80);
}

static std::string_view take_name(std::string_view &text)
{
    auto end = static_cast<size_t>(std::find_if_not(text.begin(), text.end(), in_name) - text.begin());
    std::string_view name = text.substr(0, end);
    text.remove_prefix(end);
    return name;
}

static const ComparisonRow *take_comparison(std::string_view &text)
{
    for (const ComparisonRow &row : COMPARISONS) {
        if (take(text, row.sign))
            return &row;
    }
    return nullptr;
}

// A quote within the quotes is two of them.
static bool take_text(std::string_view &text, std::string &value)
{
    while (!text.empty()) {
        char c = text[0];
        text.remove_prefix(1);
        if (c == '\'' && !take(text, "'"))
            return true;
        value.push_back(c);
    }
    return false;
}

static bool take_number(std::string_view &text, double &number)
{
    bool sign = take(text, "+");
    if (sign && text.starts_with('-'))
        return false;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || !std::isfinite(number))
        return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

static bool take_condition(std::string_view &text, Condition &condition)
{
    skip_blanks(text);
    condition.property = take_name(text);
    if (condition.property.empty())
        return false;
    skip_blanks(text);
    const ComparisonRow *row = take_comparison(text);
    if (!row)
        return false;
    condition.comparison = row->comparison;
    skip_blanks(text);
    condition.is_text = take(text, "'");
    bool taken = condition.is_text ? row->for_texts && take_text(text, condition.text)
                                   : take_number(text, condition.number);
    size_t behind = text.size();
    skip_blanks(text);
    return taken && (text.empty() || condition.is_text || text.size() < behind);
}

bool parse_selector(std::string_view text, Selector &selector)
{
    selector.clear();
    skip_blanks(text);
    if (text.empty())
        return true;
    for (;;) {
        if (!take_condition(text, selector.emplace_back()))
            return false;
        if (text.empty())
            return true;
        std::string_view word = take_name(text);
        if (word != "AND" && word != "and")
            return false;
    }
}

struct Value {
    FieldType type;
    std::string_view bytes;
};

// The value of the property is the entry behind its name; names stand at even places.
static bool find_property(std::string_view message, std::string_view name, Value &value)
{
    constexpr uint32_t NAME_KEY = field_key(FIELD_STRING, 1);
    size_t offset = FIELD_HEAD_SIZE;
    FieldEntry entry;
    for (bool even = true; next_field(message, offset, entry); even = !even) {
        if (!even || entry.key != NAME_KEY || entry.value != name)
            continue;
        if (!next_field(message, offset, entry))
            return false;
        value = {static_cast<FieldType>(entry.key >> 26), entry.value};
        return true;
    }
    return false;
}

static bool number_in(const Value &value, double &number)
{
    const char *bytes = value.bytes.data();
    switch (value.type) {
    case FIELD_CHAR:
        number = static_cast<signed char>(bytes[0]);
        return true;
    case FIELD_SHORT:
        number = static_cast<int16_t>(static_cast<unsigned char>(bytes[0]) << 8 |
                                      static_cast<unsigned char>(bytes[1]));
        return true;
    case FIELD_INT:
    case FIELD_LONG:
        number = int_value(value.bytes);
        return true;
    case FIELD_FLOAT:
        number = static_cast<double>(std::bit_cast<float>(get_word(bytes)));
        return true;
    case FIELD_DOUBLE:
        number = double_value(value.bytes);
        return true;
    default:
        return false;
    }
}

static bool is_text(const Value &value)
{
    return value.type == FIELD_STRING || value.type == FIELD_CARRAY || value.type == FIELD_CHAR;
}

// What isn't there, or is of another kind, satisfies nothing; nor does what is no number.
static bool holds(const Condition &condition, std::string_view message)
{
    Value value;
    if (!find_property(message, condition.property, value))
        return false;
    unsigned relation = 0;
    double number = 0;
    if (condition.is_text && is_text(value))
        relation = value.bytes == condition.text ? SAME : ABOVE;
    else if (!condition.is_text && number_in(value, number))
        relation = number < condition.number ? BELOW : number > condition.number ? ABOVE : SAME;
    if (number != number)
        return false;
    return std::any_of(std::begin(COMPARISONS), std::end(COMPARISONS), [&](const ComparisonRow &row) {
        return row.comparison == condition.comparison && (row.satisfied_by & relation);
    });
}

bool selects(const Selector &selector, std::string_view message)
{
    return std::all_of(selector.begin(), selector.end(),
                       [message](const Condition &condition) { return holds(condition, message); });
}

}  // namespace clhsim
