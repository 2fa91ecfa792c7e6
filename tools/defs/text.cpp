#include "text.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace defs {

void complain(Report &report, const Place &place, const char *format, ...)
{
    if (++report.errors > MOST_ERRORS) {
        if (report.errors == MOST_ERRORS + 1)
            fprintf(stderr, "%s: and more errors\n", place.file.c_str());
        return;
    }
    char cause[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(cause, sizeof cause, format, arguments);
    va_end(arguments);
    if (place.line > 0)
        fprintf(stderr, "%s:%d: %s\n", place.file.c_str(), place.line, cause);
    else
        fprintf(stderr, "%s: %s\n", place.file.c_str(), cause);
}

// The C library's tests depend on the locale.
static bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

static size_t word_end(std::string_view text, size_t at)
{
    while (at < text.size() && (is_letter(text[at]) || is_digit(text[at])))
        at++;
    return at;
}

// A number ends where no number could go on, so that 1x2 is one wrong number and not two tokens.
static size_t number_end(std::string_view text, size_t at)
{
    while (at < text.size() && (is_letter(text[at]) || is_digit(text[at]) || strchr("+-.", text[at])) &&
           text[at] != 0)
        at++;
    return at;
}

static bool begins_number(std::string_view text, size_t at)
{
    if (is_digit(text[at]))
        return true;
    if (text[at] != '+' && text[at] != '-' && text[at] != '.')
        return false;
    return at + 1 < text.size() && (is_digit(text[at + 1]) || text[at + 1] == '.');
}

// What a backslash at `at` stands for; moves `at` to its last character. False: nothing.
static bool unescape(std::string_view text, size_t &at, char &c)
{
    static const char LETTERS[] = "nt\"\\", MEANINGS[] = "\n\t\"\\";
    if (++at >= text.size())
        return false;
    const char *found = text[at] == 0 ? nullptr : strchr(LETTERS, text[at]);
    if (found) {
        c = MEANINGS[found - LETTERS];
        return true;
    }
    unsigned value = 0;
    if (text[at] != 'x' || at + 2 >= text.size())
        return false;
    auto [end, error] = std::from_chars(text.data() + at + 1, text.data() + at + 3, value, 16);
    if (error != std::errc() || end != text.data() + at + 3 || value == 0)
        return false;  // a NUL would end the text
    c = static_cast<char>(value);
    at += 2;
    return true;
}

// Reads the quoted text that begins at `at`, up to behind its closing quote or the end of the line.
static std::string scan_quoted(std::string_view text, size_t &at, const Place &place, Report &report)
{
    std::string meaning;
    for (at++; at < text.size() && text[at] != '\n'; at++) {
        char c = text[at];
        if (c == '"') {
            at++;
            return meaning;
        }
        if (c == 0)
            complain(report, place, "a text must not hold a NUL");
        else if (c == '\\' && !unescape(text, at, c))
            complain(report, place, "unknown escape; there are \\n \\t \\\" \\\\ \\xHH");
        else
            meaning += c;
    }
    complain(report, place, "text without its closing quote");
    return meaning;
}

std::vector<Token> scan(const std::string &file, std::string_view text, Report &report)
{
    std::vector<Token> tokens;
    Place place{file, 1};
    for (size_t at = 0; at < text.size();) {
        char c = text[at];
        if (c == '\n') {
            place.line++;
            at++;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            at++;
        } else if (c == '#') {
            at = std::min(text.find('\n', at), text.size());
        } else if (c == '"') {
            std::string meaning = scan_quoted(text, at, place, report);
            tokens.push_back({Kind::QUOTED, meaning, place.line});
        } else if (is_letter(c) || begins_number(text, at)) {
            size_t end = is_letter(c) ? word_end(text, at) : number_end(text, at);
            Kind kind = is_letter(c) ? Kind::WORD : Kind::NUMBER;
            tokens.push_back({kind, std::string(text.substr(at, end - at)), place.line});
            at = end;
        } else if (c != 0 && strchr("{}[];,", c)) {
            tokens.push_back({Kind::MARK, std::string(1, c), place.line});
            at++;
        } else {
            complain(report, place,
                     c > ' ' && c < 127 ? "'%c' doesn't belong here" : "byte 0x%02x doesn't belong here",
                     static_cast<unsigned char>(c));
            at++;
        }
    }
    tokens.push_back({Kind::END, "", place.line});
    return tokens;
}

bool is(const Token &token, const char *text)
{
    return (token.kind == Kind::WORD || token.kind == Kind::MARK) && token.text == text;
}

std::string shown(const Token &token)
{
    if (token.kind == Kind::END)
        return "the end of the file";
    return token.kind == Kind::QUOTED ? quoted(token.text) : token.text;
}

bool parse_number(std::string_view text, int64_t low, int64_t high, int64_t &number)
{
    std::string digits(text);
    bool negative = !digits.empty() && digits[0] == '-';
    if (negative || (!digits.empty() && digits[0] == '+'))
        digits.erase(0, 1);
    int base = 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits.erase(0, 2);
        base = 16;
    }
    if (!digits.empty() && digits[0] == '-')
        return false;
    if (negative)
        digits.insert(digits.begin(), '-');  // so that the lowest number is one too
    int64_t value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    if (error != std::errc() || end != digits.data() + digits.size() || value < low || value > high)
        return false;
    number = value;
    return true;
}

std::string quoted(std::string_view text)
{
    std::string out = "\"";
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        char escape[8];
        if (c == '"' || c == '\\')
            out += '\\';
        if (byte >= ' ' && byte < 127) {
            out += c;
            continue;
        }
        snprintf(escape, sizeof escape, "\\x%02x", byte);
        out += escape;
    }
    return out + "\"";
}

bool is_word(std::string_view text)
{
    return !text.empty() && is_letter(text[0]) && word_end(text, 0) == text.size();
}

bool is_c_name(std::string_view text)
{
    static constexpr std::string_view TAKEN =
        " alignas alignof and and_eq asm auto bitand bitor bool break case catch char char16_t "
        "char32_t char8_t class co_await co_return co_yield compl concept const const_cast "
        "consteval constexpr constinit continue decltype default delete do double dynamic_cast "
        "else enum explicit export extern false float for friend goto if inline int long mutable "
        "namespace new noexcept not not_eq nullptr operator or or_eq private protected public "
        "register reinterpret_cast requires restrict return short signed sizeof static "
        "static_assert static_cast struct switch template this thread_local throw true try "
        "typedef typeid typename typeof union unsigned using virtual void volatile wchar_t while "
        "xor xor_eq ";
    std::string spaced = " ";
    spaced += text;
    spaced += ' ';
    return is_word(text) && TAKEN.find(spaced) == TAKEN.npos;
}

std::string guard_name(const std::string &path)
{
    std::string guard = path.substr(path.rfind('/') + 1);
    for (char &c : guard) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
        else if (!is_letter(c) && !is_digit(c))
            c = '_';
    }
    return guard.empty() || is_digit(guard[0]) ? "H_" + guard : guard;
}

}  // namespace defs
