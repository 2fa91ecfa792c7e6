// The documents against the library: the numbers of docs/errors.md, the variables of docs/environment.md, and
// the links of all of them.
#include <gtest/gtest.h>

#include <ctype.h>
#include <dlfcn.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <set>

#include "toolbox.h"
#include "vorn.h"
#include "vorn/compat.h"

namespace fs = std::filesystem;

static const fs::path PROJECT = PROJECT_DIR;

using names = std::set<std::string>;

static bool is_word(char c)
{
    return isalnum((unsigned char)c) != 0 || c == '_';
}

static std::string trimmed(const std::string &text)
{
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

static bool begins_with(const std::string &text, const std::string &what)
{
    return text.compare(0, what.size(), what) == 0;
}

// --- Reading documents.

// A row of a table; its cells as they stand.
using row = std::vector<std::string>;

static row cells_of(const std::string &line)
{
    row cells;
    for (size_t begin = 1, end; (end = line.find('|', begin)) != std::string::npos; begin = end + 1) {
        cells.push_back(trimmed(line.substr(begin, end - begin)));
    }
    return cells;
}

// What stands between backquotes.
static std::vector<std::string> code_of(const std::string &text)
{
    std::vector<std::string> pieces;
    for (size_t open = text.find('`'); open != std::string::npos; open = text.find('`', open)) {
        const size_t close = text.find('`', open + 1);
        if (close == std::string::npos) {
            break;
        }
        pieces.push_back(text.substr(open + 1, close - open - 1));
        open = close + 1;
    }
    return pieces;
}

static names set_of(const std::vector<std::string> &list)
{
    return {list.begin(), list.end()};
}

static std::string unquoted(const std::string &text)
{
    return text.size() >= 2 && text.front() == '"' && text.back() == '"' ? text.substr(1, text.size() - 2)
                                                                         : "?" + text;
}

// The lines of the section under a heading of any level, up to the next heading.
static std::vector<std::string> section(const std::string &document, const std::string &heading)
{
    std::vector<std::string> lines;
    bool inside = false;
    for (const std::string &line : lines_of(read_file(PROJECT / "docs" / document))) {
        if (begins_with(line, "#")) {
            inside = trimmed(line.substr(line.find_first_not_of('#'))) == heading;
        } else if (inside) {
            lines.push_back(line);
        }
    }
    return lines;
}

// The rows of a section's table, without its head.
static std::vector<row> table(const std::string &heading)
{
    std::vector<row> rows;
    bool in_body = false;
    for (const std::string &line : section("errors.md", heading)) {
        if (begins_with(line, "|---")) {
            in_body = true;
        } else if (in_body && begins_with(line, "|")) {
            rows.push_back(cells_of(line));
        }
    }
    EXPECT_FALSE(rows.empty()) << heading;
    return rows;
}

// --- Reading headers.

// The names that a header defines as numbers.
static std::map<std::string, int> numbers_of(const std::string &header)
{
    std::map<std::string, int> numbers;
    for (const std::string &line : lines_of(read_file(PROJECT / header))) {
        if (!begins_with(line, "#define ")) {
            continue;
        }
        const size_t end = line.find(' ', 8);
        if (end == std::string::npos) {
            continue;
        }
        std::string value = line.substr(end + 1);
        if (begins_with(value, "(")) {
            value = value.substr(1);
        }
        char *behind = nullptr;
        const long number = strtol(value.c_str(), &behind, 0);
        if (behind != value.c_str()) {
            numbers[line.substr(8, end - 8)] = (int)number;
        }
    }
    return numbers;
}

// --- Numberings.

static constexpr int FAR_OUTSIDE = 12345;

// A numbering of the library, and the section that tells it.
struct numbering {
    const char *heading;
    const char *(*text)(int number);
    const char *header;                 // the one whose names must all be told; null: no header has them
    std::vector<std::string> prefixes;  // of those names
    const char *second_header;          // may have the names, too
};

static bool belongs(const numbering &one, const std::string &name)
{
    return std::any_of(one.prefixes.begin(), one.prefixes.end(),
                       [&](const std::string &prefix) { return begins_with(name, prefix); });
}

// The names of the numbering. Those of codes that are searched for stand in front of their texts.
static std::map<std::string, int> defined(const numbering &one)
{
    std::map<std::string, int> found;
    if (one.header == nullptr) {
        return found;
    }
    for (const auto &[name, number] : numbers_of(one.header)) {
        if (belongs(one, name) || begins_with(one.text(number), name + " (")) {
            found[name] = number;
        }
    }
    return found;
}

static std::set<int> numbers_in_use(const numbering &one)
{
    std::set<int> used;
    const std::string outside = one.text(FAR_OUTSIDE);
    for (int number = -300; number <= 300; number++) {
        if (one.text(number) != outside) {
            used.insert(number);
        }
    }
    for (const auto &[name, number] : defined(one)) {
        used.insert(number);
    }
    return used;
}

static void expect_as_documented(const numbering &one)
{
    std::set<int> told;
    names told_names;
    std::map<std::string, int> known = defined(one), second;
    if (one.second_header != nullptr) {
        second = numbers_of(one.second_header);
    }
    for (const row &cells : table(one.heading)) {
        ASSERT_GE(cells.size(), 4u) << one.heading;
        const int number = atoi(cells[0].c_str());
        const std::string name = code_of(cells[1]).at(0);
        EXPECT_TRUE(told.insert(number).second) << one.heading << " tells " << number << " twice";
        EXPECT_EQ(unquoted(cells[2]), one.text(number)) << one.heading << ", " << number;
        if (one.header != nullptr) {
            const auto at = known.find(name);
            EXPECT_TRUE(at != known.end() ? at->second == number
                                          : second.count(name) && second[name] == number)
                << one.heading << ": no header defines " << name << " as " << number;
        } else {
            EXPECT_TRUE(begins_with(one.text(number), name + " (")) << name;
        }
        told_names.insert(name);
    }
    for (const int number : numbers_in_use(one)) {
        EXPECT_TRUE(told.count(number))
            << one.heading << " doesn't tell " << number << ", " << one.text(number);
    }
    for (const int number : told) {
        EXPECT_TRUE(numbers_in_use(one).count(number))
            << one.heading << " tells " << number << ", which is none";
    }
    for (const auto &[name, number] : known) {
        EXPECT_TRUE(told_names.count(name)) << one.heading << " doesn't tell " << name;
    }
}

TEST(ErrorNumbers, TperrnoIsAsTold)
{
    expect_as_documented({"tperrno", tpstrerror, "include/vorn/errors.h", {"TPE", "TPG"}, nullptr});
}

TEST(ErrorNumbers, FberrorIsAsTold)
{
    expect_as_documented({"fberror", fbstrerror, "include/vorn/errors.h", {"FBE", "EBE"}, nullptr});
}

TEST(ErrorNumbers, TxCodesAreAsTold)
{
    expect_as_documented({"tx_ return codes", txstrerror, "include/vorn/tx.h", {}, nullptr});
}

TEST(ErrorNumbers, XaCodesAreAsTold)
{
    expect_as_documented({"xa_ return codes", xastrerror, nullptr, {}, nullptr});
}

TEST(ErrorNumbers, CompatibleTperrnoIsAsTold)
{
    expect_as_documented({"Compatible tperrno",
                          _tmget_compat_strerror,
                          "include/vorn/compat.h",
                          {"TP"},
                          "include/vorn/errors.h"});
}

TEST(ErrorNumbers, FerrorIsAsTold)
{
    expect_as_documented({"Ferror", _tmget_compat_strFerror, "include/vorn/compat.h", {"F"}, nullptr});
}

TEST(ErrorNumbers, UunixerrIsAsTold)
{
    expect_as_documented({"Uunixerr", Ustrerror, "include/vorn/compat.h", {"U"}, nullptr});
}

// --- From one numbering to the other.

static int compatible_tperrno(int native)
{
    *_tmget_tperrno_addr() = native;
    return *_tmget_compat_errno_addr();
}

static int compatible_Ferror(int native)
{
    *_tmget_fberror_addr() = native;
    return *_tmget_compat_Ferror_addr();
}

// The last column of the native table, and "Made from" in the other one, say the same as the library.
static void expect_mapping(const std::string &native, const std::string &compatible, int (*map)(int))
{
    std::map<int, names> made_from;
    for (const row &cells : table(native)) {
        const int number = atoi(cells[0].c_str()), mapped = map(number);
        EXPECT_EQ(atoi(cells.back().c_str()), mapped) << native << ", " << number;
        made_from[mapped].insert(code_of(cells[1]).at(0));
    }
    for (const row &cells : table(compatible)) {
        const int number = atoi(cells[0].c_str());
        names expected = number == 0 ? names() : made_from[number];
        for (auto at = expected.begin(); at != expected.end();) {  // the ends of the numbering aren't errors
            at = *at == "FBEMAXNO" ? expected.erase(at) : std::next(at);
        }
        EXPECT_EQ(set_of(code_of(cells[3])), expected) << compatible << ", " << number;
    }
}

TEST(ErrorNumbers, TperrnoMapsAsTold)
{
    expect_mapping("tperrno", "Compatible tperrno", compatible_tperrno);
}

TEST(ErrorNumbers, FberrorMapsAsTold)
{
    expect_mapping("fberror", "Ferror", compatible_Ferror);
}

TEST(ErrorNumbers, ErrnoMapsAsTold)
{
    std::map<int, names> made_from;
    for (int error = 1; error < 140; error++) {
        const char *name = strerrorname_np(error);
        errno = error;
        const int mapped = *_tmget_compat_unixerrno_addr();
        if (name != nullptr && mapped != UNLIST) {
            made_from[mapped].insert(name);
        }
    }
    for (const row &cells : table("Uunixerr")) {
        const int number = atoi(cells[0].c_str());
        EXPECT_EQ(set_of(code_of(cells[3])), made_from[number]) << number;
    }
}

TEST(ErrorNumbers, TheDetailIsAsTold)
{
    std::map<std::string, int> numbers = numbers_of("include/vorn/errors.h");
    names special;
    for (const row &cells : table("tperrordetail")) {
        for (const std::string &name : code_of(cells[1])) {
            ASSERT_TRUE(numbers.count(name)) << name;
            *_tmget_tperrno_addr() = numbers[name];
            EXPECT_EQ(tperrordetail(0), atoi(cells[0].c_str())) << name;
            special.insert(name);
        }
    }
    for (const auto &[name, number] : numbers) {
        *_tmget_tperrno_addr() = number;
        if (begins_with(name, "TPE") && tperrordetail(0) != -1) {
            EXPECT_TRUE(special.count(name)) << name;
        }
    }
}

TEST(ErrorNumbers, TheProvidersAreAsTold)
{
    std::map<std::string, int> known = numbers_of("providers/sqz/sqz.h");
    known.merge(numbers_of("providers/kexcli/kexcli.h"));
    names told;
    for (const row &cells : table("libsqz and libkexcli")) {
        const std::string name = code_of(cells[0]).at(0);
        ASSERT_TRUE(known.count(name)) << name;
        EXPECT_EQ(atoi(cells[1].c_str()), known[name]) << name;
        told.insert(name);
    }
    for (const auto &[name, number] : known) {
        const bool is_result =
            begins_with(name, "SQZ_E") || (begins_with(name, "KEXCLI_") && !begins_with(name, "KEXCLI_M"));
        EXPECT_TRUE(!is_result || told.count(name)) << name;
    }
}

// Constants and marks of the text stand beside the calls.
static bool names_a_call(const std::string &name)
{
    return std::all_of(name.begin(), name.end(), is_word) &&
           std::any_of(name.begin(), name.end(), [](unsigned char c) { return islower(c) != 0; });
}

// A call that has another name by now would send the reader looking for it.
TEST(ErrorNumbers, EveryCallThatIsToldIsThere)
{
    for (const char *heading : {"Results with a meaning of their own", "Inside the library"}) {
        for (const row &cells : table(heading)) {
            for (const std::string &name : code_of(cells[0])) {
                EXPECT_TRUE(!names_a_call(name) || dlsym(RTLD_DEFAULT, name.c_str()) != nullptr)
                    << heading << ": " << name;
            }
        }
    }
}

// --- Variables.

struct source {
    std::string path, text;  // the text without comments
};

// Blanks comments out; strings stay.
static std::string without_comments(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size();) {
        size_t end = i + 1;
        if (text.compare(i, 2, "//") == 0) {
            i = std::min(text.find('\n', i), text.size());
            continue;
        }
        if (text.compare(i, 2, "/*") == 0) {
            end = text.find("*/", i + 2);
            i = end == std::string::npos ? text.size() : end + 2;
            continue;
        }
        if (text[i] == '"' || (text[i] == '\'' && (i == 0 || !is_word(text[i - 1])))) {
            while (end < text.size() && text[end] != text[i] && text[end] != '\n') {
                end += text[end] == '\\' ? 2 : 1;
            }
            end++;
        }
        out += text.substr(i, end - i);
        i = end;
    }
    return out;
}

static std::vector<source> sources()
{
    std::vector<source> all;
    for (const char *folder : {"src", "providers", "tools", "examples"}) {
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(PROJECT / folder)) {
            const std::string suffix = entry.path().extension();
            if (suffix == ".cpp" || suffix == ".c" || suffix == ".h") {
                all.push_back(
                    {fs::relative(entry.path(), PROJECT), without_comments(read_file(entry.path()))});
            }
        }
    }
    return all;
}

// The arguments of the call whose bracket opens at `open`, as they stand.
static std::vector<std::string> arguments_at(const std::string &text, size_t open)
{
    std::vector<std::string> arguments(1);
    int depth = 0;
    for (size_t i = open + 1; i < text.size(); i++) {
        if (text[i] == ')' && depth-- == 0) {
            break;
        }
        depth += text[i] == '(';
        if (text[i] == ',' && depth == 0) {
            arguments.emplace_back();
        } else if (text[i] != '\n') {
            arguments.back() += text[i];
        }
    }
    for (std::string &argument : arguments) {
        argument = trimmed(argument);
    }
    return arguments;
}

// Where the word `name` stands with a bracket behind it; not at the beginning of a string.
static std::vector<size_t> calls_of(const std::string &text, const std::string &name)
{
    std::vector<size_t> brackets;
    for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
        const size_t behind = at + name.size();
        if ((at == 0 || (!is_word(text[at - 1]) && text[at - 1] != '"')) && behind < text.size() &&
            text[behind] == '(') {
            brackets.push_back(behind);
        }
    }
    return brackets;
}

static bool is_literal(const std::string &argument)
{
    return unquoted(argument)[0] != '?';
}

// The texts that macros of this name have.
static names macro_texts(const std::vector<source> &all, const std::string &macro)
{
    names texts;
    for (const source &one : all) {
        for (const std::string &line : lines_of(one.text)) {
            if (begins_with(line, "#define " + macro + " ")) {
                texts.insert(unquoted(trimmed(line.substr(9 + macro.size()))));
            }
        }
    }
    return texts;
}

// The texts that the callers of the function around `at` give for its parameter.
static names parameter_texts(const std::vector<source> &all, const source &one, size_t at,
                             const std::string &parameter)
{
    const size_t body = one.text.rfind("\n{", at);
    const size_t head = body == std::string::npos ? body : one.text.rfind('\n', body - 1);
    const size_t open = head == std::string::npos ? head : one.text.find('(', head);
    if (open == std::string::npos || open > body) {
        return {};
    }
    size_t begin = open;
    while (is_word(one.text[begin - 1])) {
        begin--;
    }
    const std::string function = one.text.substr(begin, open - begin);
    const std::vector<std::string> parameters = arguments_at(one.text, open);
    names texts;
    for (size_t i = 0; i < parameters.size(); i++) {
        if (parameters[i] != "const char *" + parameter) {
            continue;
        }
        for (const source &caller : all) {
            for (const size_t bracket : calls_of(caller.text, function)) {
                const std::vector<std::string> given = arguments_at(caller.text, bracket);
                if (i < given.size() && is_literal(given[i])) {
                    texts.insert(unquoted(given[i]));
                }
            }
        }
    }
    return texts;
}

struct reading {
    names variables;
    names unclear;  // "path: argument" where no name can be found
};

static reading variables_read()
{
    const std::vector<source> all = sources();
    reading found;
    for (const source &one : all) {
        for (const char *reader : {"getenv", "secure_getenv", "tpgetenv", "tuxgetenv"}) {
            for (const size_t bracket : calls_of(one.text, reader)) {
                const std::string argument = arguments_at(one.text, bracket).front();
                if (begins_with(argument, "const char *")) {
                    continue;  // the reader itself
                }
                names texts = is_literal(argument) ? names{unquoted(argument)} : macro_texts(all, argument);
                if (texts.empty()) {
                    texts = parameter_texts(all, one, bracket, argument);
                }
                if (texts.empty()) {
                    found.unclear.insert(one.path + ": " + argument);
                }
                found.variables.insert(texts.begin(), texts.end());
            }
        }
    }
    return found;
}

// The variables that have a section.
static names variables_told()
{
    names told;
    for (const std::string &line : lines_of(read_file(PROJECT / "docs/environment.md"))) {
        if (begins_with(line, "### `")) {
            told.insert(code_of(line).at(0));
        }
    }
    return told;
}

TEST(Environment, EveryVariableThatIsReadIsTold)
{
    const names told = variables_told();
    const reading read = variables_read();
    EXPECT_GT(read.variables.size(), 10u);
    for (const std::string &name : read.variables) {
        EXPECT_TRUE(told.count(name)) << name << " has no section in docs/environment.md";
    }
    // The environment file's $NAME, and tpgetenv itself, read what others name.
    EXPECT_EQ(read.unclear, names{"src/runtime/envfile.cpp: name"});
}

TEST(Environment, EveryVariableThatIsToldIsRead)
{
    const names read = variables_read().variables;
    for (const std::string &name : variables_told()) {
        EXPECT_TRUE(read.count(name)) << "nothing reads " << name;
    }
}

TEST(Environment, EachVariableHasAnExampleAndIsInTheOverview)
{
    names listed;
    for (const std::string &line : section("environment.md", "The environment")) {
        if (begins_with(line, "| [")) {
            for (const std::string &name : code_of(cells_of(line).at(0))) {
                listed.insert(name);
            }
        }
    }
    EXPECT_EQ(listed, variables_told());
    for (const std::string &name : variables_told()) {
        bool has_example = false;
        for (const std::string &line : section("environment.md", "`" + name + "`")) {
            has_example |= begins_with(line, "- **Example** ") && line.find(name + "=") != std::string::npos;
        }
        EXPECT_TRUE(has_example) << name;
    }
}

// --- Links.

// The name under which a heading is reached, as the usual viewers make it.
static std::string anchor_of(const std::string &heading)
{
    std::string anchor;
    for (const char c : trimmed(heading.substr(heading.find_first_not_of('#')))) {
        if (is_word(c) || c == '-') {
            anchor += (char)tolower((unsigned char)c);
        } else if (c == ' ') {
            anchor += '-';
        }
    }
    return anchor;
}

static names anchors_of(const fs::path &document)
{
    names anchors;
    for (const std::string &line : lines_of(read_file(document))) {
        if (begins_with(line, "#")) {
            anchors.insert(anchor_of(line));
        }
    }
    return anchors;
}

static std::vector<fs::path> documents()
{
    std::vector<fs::path> found = {PROJECT / "README.md"};
    for (const char *folder : {"docs", "tools", "providers", "abi"}) {
        if (!fs::exists(PROJECT / folder)) {
            continue;
        }
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(PROJECT / folder)) {
            if (entry.path().extension() == ".md") {
                found.push_back(entry.path());
            }
        }
    }
    return found;
}

TEST(Documents, LinksLeadSomewhere)
{
    for (const fs::path &document : documents()) {
        const std::string text = read_file(document);
        for (size_t at = text.find("]("); at != std::string::npos; at = text.find("](", at + 1)) {
            const std::string link = text.substr(at + 2, text.find(')', at) - at - 2);
            if (link.find("://") != std::string::npos) {
                continue;
            }
            const size_t mark = std::min(link.find('#'), link.size());
            const fs::path target = mark == 0 ? document : document.parent_path() / link.substr(0, mark);
            EXPECT_TRUE(fs::exists(target)) << document << " links to " << link;
            if (mark < link.size()) {
                EXPECT_TRUE(anchors_of(target).count(link.substr(mark + 1)))
                    << document << " links to " << link;
            }
        }
    }
}
