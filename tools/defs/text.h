// What the texts of both compilers are made of: words, numbers, quoted texts and marks, and the errors in
// them.
#ifndef DEFS_TEXT_H
#define DEFS_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace defs {

// Where something stands. Line 0: the file as a whole.
struct Place {
    std::string file;
    int line = 0;
};

struct Report {
    int errors = 0;
};

// Writes "file:line: cause" to standard error and counts. After MOST_ERRORS it only counts.
constexpr int MOST_ERRORS = 20;
void complain(Report &report, const Place &place, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

enum class Kind { WORD, NUMBER, QUOTED, MARK, END };

struct Token {
    Kind kind;
    std::string text;  // of a QUOTED what it stands for
    int line;
};

// The tokens of a text, with an END behind them. What belongs to none is complained of and left out.
std::vector<Token> scan(const std::string &file, std::string_view text, Report &report);

// True for a token that is this word or mark.
bool is(const Token &token, const char *text);
// How an error calls it: a quoted text with its quotes, and the end of the file by that name.
std::string shown(const Token &token);

// The whole of `text`, decimal or hexadecimal behind 0x, with or without a sign, within the limits.
bool parse_number(std::string_view text, int64_t low, int64_t high, int64_t &number);

std::string quoted(std::string_view text);  // as scan reads it
bool is_word(std::string_view text);        // letters, digits and _, no digit in front
bool is_c_name(std::string_view text);      // a word that C and C++ have no other use for

// The name of a header's guard, from the file's name.
std::string guard_name(const std::string &path);

}  // namespace defs

#endif
