#include "structs.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace sdlc {

using defs::Kind;
using defs::Place;
using defs::Token;

// A text on its way. `at` never passes the END token.
struct Parser {
    const std::string &file;
    const std::vector<Token> &tokens;
    const defs::FieldTable &fields;
    Definitions &definitions;
    defs::Report &report;
    size_t at = 0;
};

static const Token &peek(const Parser &parser, size_t ahead = 0)
{
    return parser.tokens[std::min(parser.at + ahead, parser.tokens.size() - 1)];
}

static Place here(const Parser &parser)
{
    return {parser.file, peek(parser).line};
}

static bool accept(Parser &parser, const char *text)
{
    if (!is(peek(parser), text))
        return false;
    parser.at++;
    return true;
}

static bool wrong(Parser &parser, const char *wanted)
{
    complain(parser.report, here(parser), "%s, but here is %s", wanted, shown(peek(parser)).c_str());
    return false;
}

static bool expect(Parser &parser, const char *text)
{
    return accept(parser, text) || wrong(parser, (std::string("expected ") + text).c_str());
}

// A number token within the limits; `what` begins the error.
static bool take_number(Parser &parser, const char *what, int64_t low, int64_t high, int64_t &number)
{
    const Token &token = peek(parser);
    if (token.kind != Kind::NUMBER || !defs::parse_number(token.text, low, high, number)) {
        complain(parser.report, here(parser), "%s is a number of %lld to %lld, and not %s", what,
                 static_cast<long long>(low), static_cast<long long>(high), shown(token).c_str());
        return false;
    }
    parser.at++;
    return true;
}

static bool take_name(Parser &parser, const char *what, std::string &name)
{
    const Token &token = peek(parser);
    if (token.kind != Kind::WORD)
        return wrong(parser, (std::string("expected the name of a ") + what).c_str());
    if (token.text.size() >= NAME_SIZE)
        complain(parser.report, here(parser), "name of %zu characters; it has at most %zu", token.text.size(),
                 NAME_SIZE - 1);
    name = token.text;
    parser.at++;
    return true;
}

// "NUMBER, NUMBER": host and wire.
static bool take_pair(Parser &parser, const char *what, int64_t low, int64_t &host, int64_t &wire)
{
    return take_number(parser, what, low, MOST_BYTES, host) && expect(parser, ",") &&
           take_number(parser, what, low, MOST_BYTES, wire);
}

// The struct whose name agrees in what counts of it, or null.
static const Struct *find_struct(const Definitions &definitions, const std::string &name)
{
    auto found = definitions.by_compared.find(name.substr(0, COMPARED));
    return found == definitions.by_compared.end() ? nullptr : &definitions.structs[found->second];
}

static bool take_nested(Parser &parser, const Struct &owner, Member &member)
{
    std::string name;
    Place place = here(parser);
    if (!take_name(parser, "struct", name))
        return false;
    const Struct *nested = find_struct(parser.definitions, name);
    if (nested && nested->name == name)
        member.nested = static_cast<size_t>(nested - parser.definitions.structs.data());
    else if (name == owner.name)
        complain(parser.report, place, "struct %s can't hold itself", name.c_str());
    else
        complain(parser.report, place, "struct %s isn't defined up to here", name.c_str());
    return true;
}

static bool take_type(Parser &parser, const Struct &owner, Member &member)
{
    if (accept(parser, "struct")) {
        member.type = defs::STRUCT;
        return take_nested(parser, owner, member);
    }
    member.type = peek(parser).kind == Kind::WORD ? defs::field_type(peek(parser).text) : 0;
    if (member.type == 0) {
        complain(parser.report, here(parser), "unknown type %s", shown(peek(parser)).c_str());
        return false;
    }
    parser.at++;
    return true;
}

// "[N]" is a number of elements, but for strings and byte arrays their bytes; those may have "[N][BYTES]".
static bool take_counts(Parser &parser, Member &member)
{
    int64_t counts[2] = {1, 1};
    int dimensions = 0;
    for (; dimensions < 2 && accept(parser, "["); dimensions++) {
        if (!take_number(parser, "a count", 1, MOST_BYTES, counts[dimensions]) || !expect(parser, "]"))
            return false;
    }
    bool texts = member.type == defs::STRING || member.type == defs::CARRAY;
    if (texts && dimensions == 0)
        return wrong(parser, "a string or carray needs its bytes in []");
    if (!texts && dimensions == 2) {
        complain(parser.report, member.place, "only strings and carrays have two counts");
        return true;
    }
    if (texts)
        member.element = counts[dimensions - 1];
    member.elements = texts && dimensions == 1 ? 1 : counts[0];
    return true;
}

// "key NUMBER", "key TYPE NUMBER", "key NAME"
static bool take_key(Parser &parser, Member &member)
{
    const Token &token = peek(parser);
    int64_t number = 0;
    int type = token.kind == Kind::WORD ? defs::field_type(token.text) : 0;
    if (member.type == defs::STRUCT)
        complain(parser.report, here(parser), "a nested struct has no key");
    if (type != 0) {
        parser.at++;
        if (!take_number(parser, "the number of a field", 1, defs::HIGHEST_NUMBER, number))
            return false;
        member.key = defs::make_key(type, number);
        return true;
    }
    if (token.kind == Kind::NUMBER) {
        if (!defs::parse_number(token.text, 0, INT32_MAX, number) || !defs::is_key(number))
            complain(parser.report, here(parser), "%s is no field key", token.text.c_str());
        member.key = static_cast<int32_t>(number);
    } else if (token.kind == Kind::WORD || token.kind == Kind::QUOTED) {
        auto field = parser.fields.by_name.find(token.text);
        if (field == parser.fields.by_name.end())
            complain(parser.report, here(parser), "unknown field %s%s", shown(token).c_str(),
                     parser.fields.fields.empty() ? "; name the field table with --fields" : "");
        else
            member.key = parser.fields.fields[field->second].key;
    } else {
        return wrong(parser, "expected a field's key or name");
    }
    parser.at++;
    return true;
}

static bool take_null(Parser &parser, Member &member)
{
    const Token &token = peek(parser);
    if (token.kind != Kind::NUMBER && token.kind != Kind::QUOTED)
        return wrong(parser, "expected a null value, a number or a quoted text");
    if (member.type == defs::STRUCT)
        complain(parser.report, here(parser), "a nested struct has no null value");
    if (token.kind == Kind::NUMBER && is_bytes(member.type))
        complain(parser.report, here(parser), "the null value of a %s is a quoted text",
                 defs::type_name(member.type));
    member.null_text = token.text;
    parser.at++;
    return true;
}

// True if the library will read the whole text as a number that the member holds.
static bool is_null_number(const Member &member)
{
    const std::string &text = member.null_text;
    int64_t number = 0;
    char *end = nullptr;
    errno = 0;
    switch (member.type) {
    case defs::SHORT:
    case defs::INT:
    case defs::LONG:
        // The library takes decimal numbers only.
        number = strtol(text.c_str(), &end, 10);
        return *end == 0 && errno == 0 &&
               (member.type != defs::SHORT || (number >= INT16_MIN && number <= INT16_MAX)) &&
               (member.type != defs::INT || (number >= INT32_MIN && number <= INT32_MAX));
    default:
        strtod(text.c_str(), &end);
        return *end == 0 && errno == 0;
    }
}

static void check_null(Parser &parser, const Member &member)
{
    const std::string &text = member.null_text;
    std::string shown_text = defs::quoted(text);
    if (text.size() >= NULL_TEXT_SIZE)
        complain(parser.report, member.place, "null value of %zu characters; it has at most %zu", text.size(),
                 NULL_TEXT_SIZE - 1);
    else if (member.type == defs::CHAR && text.size() > 1)
        complain(parser.report, member.place, "null value %s is more than a character", shown_text.c_str());
    else if ((member.type == defs::STRING || member.type == defs::CARRAY) &&
             static_cast<int64_t>(text.size()) >= member.element)
        complain(parser.report, member.place, "null value %s with its NUL doesn't fit into %lld bytes",
                 shown_text.c_str(), static_cast<long long>(member.element));
    else if (!is_bytes(member.type) && member.type != defs::STRUCT && !is_null_number(member))
        complain(parser.report, member.place, "null value %s is no %s", shown_text.c_str(),
                 defs::type_name(member.type));
}

static bool take_clauses(Parser &parser, Member &member)
{
    while (!accept(parser, ";")) {
        if (accept(parser, "key")) {
            if (!take_key(parser, member))
                return false;
        } else if (accept(parser, "null")) {
            if (!take_null(parser, member))
                return false;
        } else if (accept(parser, "at")) {
            member.placed = true;
            if (!take_pair(parser, "an offset", 0, member.host_offset, member.wire_offset))
                return false;
        } else {
            return wrong(parser, "expected key, null, at or ;");
        }
    }
    return true;
}

static void add_member(Parser &parser, Struct &owner, Member &member, int errors)
{
    if (parser.report.errors != errors) {
        owner.wrong = true;
        return;
    }
    for (const Member &other : owner.members) {
        if (other.name == member.name)
            complain(parser.report, member.place, "struct %s has a member %s since line %d",
                     owner.name.c_str(), member.name.c_str(), other.place.line);
    }
    check_null(parser, member);
    Sizes sizes = sizes_of(parser.definitions, member);
    if (!member.placed) {
        Sizes next = next_offsets(parser.definitions, owner, member);
        member.host_offset = next.host;
        member.wire_offset = next.wire;
    }
    if (member.host_offset + sizes.host > MOST_BYTES || member.wire_offset + sizes.wire > MOST_BYTES)
        complain(parser.report, member.place, "with %s the struct is larger than %lld bytes",
                 member.name.c_str(), static_cast<long long>(MOST_BYTES));
    else if (owner.sized && (member.host_offset + sizes.host > owner.host_size ||
                             member.wire_offset + sizes.wire > owner.wire_size))
        complain(parser.report, member.place, "%s doesn't fit into the size of struct %s",
                 member.name.c_str(), owner.name.c_str());
    if (parser.report.errors == errors)
        append_member(parser.definitions, owner, member);
    else
        owner.wrong = true;
}

// True even after an error, as long as it is clear where the next member begins.
static bool take_member(Parser &parser, Struct &owner)
{
    Member member;
    member.place = here(parser);
    int errors = parser.report.errors;
    if (!take_type(parser, owner, member))
        return false;
    member.null_text = default_null(member.type);
    if (!take_name(parser, "member", member.name) || !take_counts(parser, member) ||
        !take_clauses(parser, member))
        return false;
    add_member(parser, owner, member, errors);
    return true;
}

// Behind the next of these marks, or in front of the file's end.
static void skip_behind(Parser &parser, const char *mark, const char *other)
{
    while (peek(parser).kind != Kind::END && !is(peek(parser), mark) && !is(peek(parser), other))
        parser.at++;
    if (is(peek(parser), mark))
        parser.at++;
}

// Two members that share bytes would undo each other.
static void check_overlap(Parser &parser, const Struct &owner, int64_t Member::*offset, int64_t Sizes::*size,
                          const char *side)
{
    std::vector<const Member *> sorted;
    for (const Member &member : owner.members)
        sorted.push_back(&member);
    std::sort(sorted.begin(), sorted.end(),
              [&](const Member *a, const Member *b) { return a->*offset < b->*offset; });
    for (size_t i = 1; i < sorted.size(); i++) {
        const Member &before = *sorted[i - 1], &member = *sorted[i];
        if (before.*offset + sizes_of(parser.definitions, before).*size > member.*offset)
            complain(parser.report, member.place, "%s and %s overlap on the %s", before.name.c_str(),
                     member.name.c_str(), side);
    }
}

static bool take_struct_head(Parser &parser, Struct &owner)
{
    int64_t word = 0;
    if (!expect(parser, "struct") || !take_name(parser, "struct", owner.name))
        return false;
    while (!accept(parser, "{")) {
        if (accept(parser, "size")) {
            owner.sized = true;
            if (!take_pair(parser, "a size", 1, owner.host_size, owner.wire_size))
                return false;
        } else if (accept(parser, "word")) {
            if (!take_number(parser, "the word", INT32_MIN, INT32_MAX, word))
                return false;
            owner.word = static_cast<int32_t>(word);
        } else {
            return wrong(parser, "expected size, word or {");
        }
    }
    return true;
}

static void check_name(Parser &parser, const Struct &owner)
{
    const Struct *other = find_struct(parser.definitions, owner.name);
    if (!other)
        return;
    std::string since = other->place.file + ":" + std::to_string(other->place.line);
    if (other->name == owner.name)
        complain(parser.report, owner.place, "struct %s is defined at %s", owner.name.c_str(), since.c_str());
    else
        complain(parser.report, owner.place, "structs %s and %s (%s) agree in the %zu characters that count",
                 owner.name.c_str(), other->name.c_str(), since.c_str(), COMPARED);
}

static void take_struct(Parser &parser)
{
    Struct owner;
    owner.place = here(parser);
    if (!take_struct_head(parser, owner)) {
        skip_behind(parser, "}", "}");
        accept(parser, ";");
        return;
    }
    check_name(parser, owner);
    while (!accept(parser, "}")) {
        if (peek(parser).kind == Kind::END) {
            complain(parser.report, here(parser), "struct %s has no } at its end", owner.name.c_str());
            return;
        }
        if (!take_member(parser, owner)) {
            skip_behind(parser, ";", "}");
            owner.wrong = true;
        }
    }
    accept(parser, ";");
    if (owner.members.empty() && !owner.wrong)
        complain(parser.report, owner.place, "struct %s has no member", owner.name.c_str());
    finish_sizes(owner);
    if (owner.host_size > MOST_BYTES)
        complain(parser.report, owner.place, "struct %s is larger than %lld bytes", owner.name.c_str(),
                 static_cast<long long>(MOST_BYTES));
    if (owner.depth > DEEPEST)
        complain(parser.report, owner.place, "struct %s nests more than %d deep", owner.name.c_str(),
                 DEEPEST);
    check_overlap(parser, owner, &Member::host_offset, &Sizes::host, "host");
    check_overlap(parser, owner, &Member::wire_offset, &Sizes::wire, "wire");
    parser.definitions.by_compared.try_emplace(owner.name.substr(0, COMPARED),
                                               parser.definitions.structs.size());
    parser.definitions.structs.push_back(owner);
}

void read_text(const std::string &file, std::string_view text, const defs::FieldTable &fields,
               Definitions &definitions, defs::Report &report)
{
    std::vector<Token> tokens = defs::scan(file, text, report);
    Parser parser{file, tokens, fields, definitions, report};
    while (peek(parser).kind != Kind::END)
        take_struct(parser);
}

}  // namespace sdlc
