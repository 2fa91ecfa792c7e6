// Field buffers on streams: the binary record, the lines for people, and the text that fills a buffer.
#include "fields/values.h"

#include "runtime/capture.h"
#include "support/faults.h"
#include "support/fdlfile.h"
#include "support/fixtures.h"
#include "support/sdlfile.h"

using namespace fv;

namespace {

const int NAME = key_of(FB_STRING, 100), OTHER = key_of(FB_STRING, 101), AGE = key_of(FB_INT, 102);
const int RAW = key_of(FB_CARRAY, 103), NINE = key_of(FB_STRING, 104), ZERO = key_of(FB_STRING, 105);
const int HIDDEN = key_of(FB_STRING, 106), WIDE = key_of(FB_LONG, 107);

field text(int key, const std::string &value)
{
    return {key, value};
}

// A stream to write to, whose text can be read afterwards.
struct Out {
    char *data = nullptr;
    size_t size = 0;
    FILE *stream;

    Out() : stream(open_memstream(&data, &size)) {}
    ~Out()
    {
        fclose(stream);
        free(data);
    }
    std::string content()
    {
        fflush(stream);
        return std::string(data, size);
    }
};

// A stream to read from.
struct In {
    std::string data;
    FILE *stream;

    explicit In(const std::string &from)
        : data(from), stream(data.empty() ? fopen("/dev/null", "r") : nullptr)
    {
        if (stream == nullptr)
            stream = fmemopen(&data[0], data.size(), "r");
    }
    ~In() { fclose(stream); }
    operator FILE *() const { return stream; }
};

struct TextForm : testing::Test {
    LogFile log;

    TextForm()
    {
        std::string path = write_definition(fdl::file_bytes({{"NAME", NAME},
                                                             {"OTHER", OTHER},
                                                             {"AGE", AGE},
                                                             {"RAW", RAW},
                                                             {"9TH", NINE},
                                                             {"0TH", ZERO},
                                                             {"1ST", HIDDEN},
                                                             {"WIDE", WIDE}}));
        setenv("FDLFILE", path.c_str(), 1);
    }
};

struct TextFormWithoutNames : testing::Test {
    LogFile log;

    TextFormWithoutNames() { unsetenv("FDLFILE"); }
};

std::string printed(FBUF *fbuf)
{
    Out out;
    EXPECT_EQ(fbfprint(fbuf, out.stream), 1);
    return out.content();
}

std::string line_of(int key, const char *name, const char *type, const std::string &rest)
{
    return "fkey = " + std::to_string(key) + ", fname = " + name + ", type = " + type + ", " + rest + "\n";
}

int read_text(FBUF *fbuf, const std::string &lines)
{
    In in(lines);
    return fbextread(fbuf, in);
}

struct script {
    const char *lines;
    int result;
    int error;
    fields left;
};

void expect_scripts(const fields &start, const std::vector<script> &scripts)
{
    for (const script &each : scripts) {
        SCOPED_TRACE(each.lines);
        Buffer buffer;
        for (const field &one : start)
            buffer.add(one);
        EXPECT_EQ(read_text(buffer, each.lines), each.result);
        EXPECT_EQ(each.result < 0 ? getfberror() : 0, each.error);
        EXPECT_EQ(content(buffer), each.left);
    }
}

}  // namespace

// ---- binary records

TEST(BinaryRecord, IsTheHeaderAndTheWholeCapacity)
{
    Buffer buffer({stored(1, i(5)), stored(2, t("text"))});
    ((char *)buffer.fbuf)[1000] = 'x';
    Out out;
    EXPECT_EQ(fbwrite(buffer, out.stream), 1);
    EXPECT_EQ(getfberror(), 0);
    std::string image((char *)head(buffer), 136);
    EXPECT_EQ(out.content(), image + whole(buffer));
}

TEST(BinaryRecord, ReadIntoTheSameCapacityComparesAsEqual)
{
    Buffer from({stored(1, i(5)), stored(2, t("text"))}), to({stored(3, i(9))});
    from.mark(0);
    std::string header((char *)head(to), 136);
    Out out;
    EXPECT_EQ(fbwrite(from, out.stream), 1);
    In in(out.content());
    EXPECT_EQ(fbread(to, in), 1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(whole(to), whole(from));
    EXPECT_EQ(fbbufop(to, from, FB_COMPARE), 0);
    EXPECT_EQ(std::string((char *)head(to), 136), header);
}

TEST(BinaryRecord, SeveralFollowOneAnother)
{
    Out out;
    for (int n = 0; n < 5; n++) {
        Buffer buffer(100 * (n + 1));
        buffer.add(stored(n, i(n)));
        EXPECT_EQ(fbwrite(buffer, out.stream), 1);
    }
    In in(out.content());
    Buffer buffer(1000);
    for (int n = 0; n < 5; n++) {
        EXPECT_EQ(fbread(buffer, in), 1);
        EXPECT_EQ(content(buffer), fields{stored(n, i(n))});
        EXPECT_EQ(head(buffer)->bufsize, buffer.full);
    }
    EXPECT_EQ(fbread(buffer, in), -1);
    EXPECT_EQ(getfberror(), FBEOS);
}

TEST(BinaryRecord, ShortAtEveryByteIsAnError)
{
    Buffer buffer({stored(1, i(5))});
    Out out;
    EXPECT_EQ(fbwrite(buffer, out.stream), 1);
    std::string image = out.content();
    Buffer to;
    for (size_t size = 0; size < image.size(); size++) {
        In in(image.substr(0, size));
        ASSERT_EQ(fbread(to, in), -1) << size;
        ASSERT_EQ(getfberror(), FBEOS) << size;
    }
    In in(image);
    EXPECT_EQ(fbread(to, in), 1);
}

TEST(BinaryRecord, LargerThanTheBufferIsRefused)
{
    Buffer from(500), exact, small;
    from.add(stored(1, i(5)));
    Out out;
    EXPECT_EQ(fbwrite(from, out.stream), 1);
    std::string image = out.content();
    small.add(stored(9, i(1)));
    std::string before = used_part(small);
    In in(image);
    EXPECT_EQ(fbread(small, in), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(used_part(small), before);
    small.room(from.full - 1 < small.full ? from.full - 1 : small.full);
    for (int32_t size : {-1, -2147483647 - 1, 0x7fffffff, small.full + 1}) {
        std::string hostile = image;
        memcpy(&hostile[12], &size, 4);
        In again(hostile);
        EXPECT_EQ(fbread(small, again), -1) << size;
        EXPECT_NE(getfberror(), 0) << size;
        EXPECT_EQ(used_part(small), before) << size;
    }
}

TEST(BinaryRecord, NoMarkIsTested)
{
    Buffer from({stored(1, i(5))}), to;
    set_word((char *)from.fbuf, 4321);
    Out out;
    EXPECT_EQ(fbwrite(from, out.stream), 1);
    In in(out.content());
    EXPECT_EQ(fbread(to, in), 1);
    EXPECT_EQ(word_at((char *)to.fbuf), 4321);
    EXPECT_EQ(fbisfbuf(to), 0);
    EXPECT_EQ(content(to), fields{stored(1, i(5))});
}

// What is read may say anything of itself: the calls stay inside.
TEST(BinaryRecord, LyingContentIsNotFollowed)
{
    Buffer from({stored(1, i(5)), stored(2, a("bytes"))});
    Out out;
    EXPECT_EQ(fbwrite(from, out.stream), 1);
    std::string image = out.content();
    for (int32_t lie : {-1, 0, 100000, 0x7fffffff})
        for (size_t at : {size_t(136 + 4), size_t(136 + 8 + 8 + 4)}) {  // used length, length of the carray
            std::string hostile = image;
            memcpy(&hostile[at], &lie, 4);
            In in(hostile);
            Buffer to;
            EXPECT_EQ(fbread(to, in), 1);
            Out lines;
            fbfprint(to, lines.stream);
            EXPECT_LE(fbkeyoccur(to, key_of(FB_INT, 1)), 1);
            fbfldcount(to);
            fbput(to, key_of(FB_INT, 7), (char *)&lie, 0);
        }
}

TEST(BinaryRecord, WriteThatFailsIsTold)
{
    Buffer buffer;
    FILE *full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    setvbuf(full, nullptr, _IONBF, 0);
    EXPECT_EQ(fbwrite(buffer, full), -1);
    EXPECT_EQ(getfberror(), FBEOS);
    fclose(full);
    FILE *for_reading = fopen("/dev/null", "r");
    EXPECT_EQ(fbwrite(buffer, for_reading), -1);
    EXPECT_EQ(getfberror(), FBEOS);
    EXPECT_EQ(fbread(buffer, for_reading), -1);
    EXPECT_EQ(getfberror(), FBEOS);
    fclose(for_reading);
}

TEST(StreamCalls, NeedBothArguments)
{
    Buffer buffer;
    Out out;
    int (*const calls[])(FBUF *, FILE *) = {fbwrite, fbread, fbfprint, fbextread};
    for (auto call : calls) {
        EXPECT_EQ(call(nullptr, out.stream), -1);
        EXPECT_EQ(getfberror(), FBEINVAL);
        EXPECT_EQ(call(buffer, nullptr), -1);
        EXPECT_EQ(getfberror(), FBEINVAL);
        EXPECT_EQ(call(nullptr, nullptr), -1);
        EXPECT_EQ(getfberror(), FBEINVAL);
    }
    EXPECT_EQ(fbprint(nullptr), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(out.content(), "");
}

// ---- lines for people

TEST_F(TextForm, PrintsALineForEachField)
{
    const struct {
        typed value;
        const char *type, *rest;
    } cases[] = {
        {c('A'), "char", "value = A "},
        {s(-2), "short", "value = -2 "},
        {i(-70000), "int", "value = -70000 "},
        {l(-1), "long", "value = -1 "},
        {l(4294967295), "long", "value = -1 "},
        {f(2.5), "float", "value = 2.500000 "},
        {d(-1e10), "double", "value = -10000000000.000000 "},
        {t("some text"), "string", "value = some text "},
        {t(""), "string", "value =  "},
        {t("100%s%n"), "string", "value = 100%s%n "},
        {a("xyz"), "carray", "len = 3, value =xyz"},
        {a(std::string("A\\\1", 3)), "carray", "len = 3, value =A\\\\\\1"},
        {a("\x80\xff \n\x7f"), "carray", "len = 5, value =\\80\\ff \\a\\7f"},
        {a(std::string("\0", 1)), "carray", "len = 1, value =\\0"},
    };
    std::string all;
    Buffer buffer;
    for (const auto &each : cases) {
        Buffer one({stored(999, each.value)});
        std::string line = "    " + line_of(key_of(each.value.type, 999), "", each.type, each.rest);
        EXPECT_EQ(printed(one), line);
        buffer.add(stored(999, each.value));
        all += line;
    }
    EXPECT_EQ(printed(buffer), all);
}

TEST_F(TextForm, PrintsNamesAndMarks)
{
    Buffer buffer({text(NAME, "first"), stored(102, i(5)), text(NAME, "second")});
    char area[20];
    int length = 0;
    EXPECT_EQ(fbget(buffer, NAME, area, &length), 1);
    std::string before = whole(buffer);
    EXPECT_EQ(printed(buffer), "(r) " + line_of(NAME, "NAME", "string", "value = first ") + "    " +
                                   line_of(AGE, "AGE", "int", "value = 5 ") + "    " +
                                   line_of(NAME, "NAME", "string", "value = second "));
    EXPECT_EQ(whole(buffer), before);
}

TEST_F(TextForm, PrintsWhatHasNoTypeAndGoesOn)
{
    Buffer buffer({stored(102, i(5))});
    buffer.add_raw(key_of(9, 1), 1).add_raw(key_of(0, 1), 1).add(stored(102, i(6)));
    std::string lines = printed(buffer);
    EXPECT_EQ(lines, "    " + line_of(AGE, "AGE", "int", "value = 5 ") + "    type error: 9 \n" +
                         "    type error: 0 \n    " + line_of(AGE, "AGE", "int", "value = 6 "));
}

TEST_F(TextForm, AnEmptyBufferPrintsNothing)
{
    Buffer buffer;
    EXPECT_EQ(printed(buffer), "");
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(fbprint(buffer), 1); }).out, "");
}

TEST_F(TextForm, PrintGoesToStandardOutput)
{
    Buffer buffer({stored(102, i(5))});
    Output seen = output_of([&] { EXPECT_EQ(fbprint(buffer), 1); });
    EXPECT_EQ(seen.out, "    " + line_of(AGE, "AGE", "int", "value = 5 "));
    EXPECT_EQ(seen.err, "");
}

TEST_F(TextForm, OtherBuffersAreNotPrinted)
{
    Buffer buffer({stored(102, i(5))});
    set_word((char *)buffer.fbuf, -4321);
    Out out;
    EXPECT_EQ(fbfprint(buffer, out.stream), -1);
    EXPECT_EQ(getfberror(), FBEBADFB);
    EXPECT_EQ(out.content(), "FDL magic error: -4321\n");
}

TEST_F(TextFormWithoutNames, PrintsEmptyNamesAndLogs)
{
    Buffer buffer({stored(102, i(5))});
    EXPECT_EQ(printed(buffer), "    " + line_of(AGE, "", "int", "value = 5 "));
    EXPECT_TRUE(log.has("FDL0501")) << log.text();
    EXPECT_TRUE(log.has("FDL0806")) << log.text();
}

// ---- text that fills a buffer

TEST_F(TextForm, LinesPutFields)
{
    field abc = text(NAME, "abc"), old = text(NAME, "old");
    expect_scripts({old}, {
                              {"", 1, 0, {old}},
                              {"\n\n\n", 1, 0, {old}},
                              {"NAME\tabc\n", 1, 0, {old, abc}},
                              {"NAME\tabc", 1, 0, {old, abc}},
                              {"NAME\t\n", 1, 0, {old, text(NAME, "")}},
                              {"NAME\tabc\nOTHER\tx y z\n", 1, 0, {old, abc, text(OTHER, "x y z")}},
                              {"#NAME\tabc\n", 1, 0, {old}},
                              {"# a comment\n\n#\nNAME\tabc\n", 1, 0, {old, abc}},
                              {"NAME\tabc\tmore\tand more\n", 1, 0, {old, abc}},
                              {"RAW\tbytes\n", 1, 0, {old, text(RAW, "bytes")}},
                              {" NAME\tabc\n", 1, 0, {old}},
                              {"+ NAME\tabc\n", 1, 0, {old}},
                              {"+\nNAME\tabc\n", 1, 0, {old, abc}},
                              {"NAME\t#abc\n", 1, 0, {old, text(NAME, "#abc")}},
                              {"NAME\t+abc -=\n", 1, 0, {old, text(NAME, "+abc -=")}},
                          });
}

TEST_F(TextForm, SignsChooseWhatALineDoes)
{
    field one = text(NAME, "one"), two = text(NAME, "two"), other = text(OTHER, "other");
    expect_scripts({one, two, other}, {
                                          {"+NAME\tzero\n", 1, 0, {text(NAME, "zero"), one, two, other}},
                                          {"+RAW\tbytes\n", 1, 0, {one, two, other, text(RAW, "bytes")}},
                                          {"-NAME\twhatever\n", 1, 0, {two, other}},
                                          {"-NAME\tx\n-NAME\tx\n", 1, 0, {other}},
                                          {"=NAME\tOTHER\n", 1, 0, {text(NAME, "other"), two, other}},
                                          {"=OTHER\tNAME\n", 1, 0, {one, two, text(OTHER, "one")}},
                                          {"-OTHER\tx\n=OTHER\tNAME\n", 1, 0, {one, two, text(OTHER, "one")}},
                                          {"=9TH\tOTHER\n", 1, 0, {one, two, other, text(NINE, "other")}},
                                          {"=NAME\tNAME\n", 1, 0, {one, two, other}},
                                      });
}

TEST_F(TextForm, TheFailingLineEndsTheReading)
{
    field abc = text(NAME, "abc");
    expect_scripts({}, {
                           {"NAME\tabc\nNOBODY\tx\nNAME\tdef\n", -1, FBETYPE, {abc}},
                           {"NAME\tabc\n-NOBODY\tx\nNAME\tdef\n", -1, FBENOENT, {abc}},
                           {"NAME\tabc\n-OTHER\tx\nNAME\tdef\n", -1, FBENOENT, {abc}},
                           {"NAME\tabc\n=OTHER\tOTHER\nNAME\tdef\n", -1, FBENOENT, {abc}},
                           {"NAME\tabc\n=OTHER\tNOBODY\nNAME\tdef\n", -1, FBENOENT, {abc}},
                           {"NAME\tabc\n=NOBODY\tNAME\nNAME\tdef\n", -1, FBETYPE, {abc}},
                       });
    Buffer small;
    small.room(8 + 8 + 8);
    EXPECT_EQ(read_text(small, "NAME\tabc\nNAME\tdef\nNAME\tghi\n"), -1);
    EXPECT_EQ(getfberror(), FBENOSPACE);
    EXPECT_EQ(content(small), (fields{abc, text(NAME, "def")}));
}

TEST_F(TextForm, NumbersAreKeysInDecimal)
{
    std::string key = std::to_string(NAME), other = std::to_string(OTHER);
    ASSERT_EQ(key[0], '4');
    Buffer buffer;
    EXPECT_EQ(read_text(buffer, key + "\tabc\n+" + key + "\tfirst\n"), 1);
    EXPECT_EQ(content(buffer), (fields{text(NAME, "first"), text(NAME, "abc")}));
    EXPECT_EQ(read_text(buffer, "-" + key + "\tx\n=" + other + "\tNAME\n"), 1);
    EXPECT_EQ(content(buffer), (fields{text(NAME, "abc"), text(OTHER, "abc")}));
    // The second token is a name, also there.
    EXPECT_EQ(read_text(buffer, "=" + other + "\t" + key + "\n"), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    // What follows the digits doesn't count.
    EXPECT_EQ(read_text(buffer, key + "NAME\tlast\n"), 1);
    EXPECT_EQ(content(buffer).back(), text(NAME, "last"));
}

TEST_F(TextForm, OnlyDigitsOfTypesMakeAKey)
{
    expect_scripts({}, {
                           {"9TH\tnine\n0TH\tzero\n", 1, 0, {text(NINE, "nine"), text(ZERO, "zero")}},
                           {"1ST\tx\n", -1, FBETYPE, {}},  // key 1, though a field has this name
                           {"-1ST\tx\n", -1, FBENOENT, {}},
                       });
}

// A value is the text itself, whatever the key's type.
TEST_F(TextForm, TextIsNotConverted)
{
    Buffer buffer;
    EXPECT_EQ(read_text(buffer, "AGE\t1234567\nWIDE\tabcdefgh\nAGE\t1\nAGE\t12\n"), 1);
    fields found = content(buffer);
    ASSERT_EQ(found.size(), 4u);
    EXPECT_EQ(found[0], text(AGE, "1234"));
    EXPECT_EQ(found[1], text(WIDE, "abcd"));
    EXPECT_EQ(found[2], text(AGE, std::string("1\0\0\0", 4)));  // zeros behind a text that is too short
    EXPECT_EQ(found[3], text(AGE, std::string("12\0\0", 4)));
}

TEST_F(TextForm, CopiesFieldsOfAnyType)
{
    Buffer buffer({stored(102, i(77)), stored(103, a(std::string("a\0b", 3)))});
    int other_int = key_of(FB_INT, 9), other_raw = key_of(FB_CARRAY, 9);
    std::string lines = "=" + std::to_string(other_int) + "\tAGE\n=" + std::to_string(other_raw) + "\tRAW\n";
    EXPECT_EQ(read_text(buffer, lines), 1);
    EXPECT_EQ(content(buffer), (fields{stored(102, i(77)), stored(103, a(std::string("a\0b", 3))),
                                       stored(9, i(77)), stored(9, a(std::string("a\0b", 3)))}));
}

TEST_F(TextForm, CopiesOfFieldsLargerThanItsAreaAreRefused)
{
    for (int32_t mode : {FLEN_UNSET, FLEN_OLD, FLEN_TRUNCATE, FLEN_ERROR}) {
        set_length_mode(mode);
        Buffer buffer(1, 100000);
        buffer.add(text(NAME, std::string(30000, 'x'))).add(text(RAW, std::string(30000, 'y')));
        int used_before = used(buffer);
        for (const char *line : {"=OTHER\tNAME\n", "=OTHER\tRAW\n"})
            if (read_text(buffer, line) < 0) {
                EXPECT_EQ(getfberror(), FBENOSPACE) << mode;
                EXPECT_EQ(used(buffer), used_before);
            }
        EXPECT_EQ(content(buffer)[0].value.size(), 30000u);
    }
}

TEST_F(TextForm, ALineWithoutASecondTokenChangesNothing)
{
    for (const char *line : {"NAME", "NAME\n", "+NAME\n", "-NAME\n", "=NAME\n", "NAME\t", "+", "-", "=", "\t",
                             "\t\t\n", "-NAME\t", "469762148\n"}) {
        Buffer buffer({text(NAME, "abc")});
        int result = read_text(buffer, std::string("OTHER\tx\n") + line);
        EXPECT_TRUE(result == 1 || (result == -1 && getfberror() == FBEINVAL)) << line;
        EXPECT_EQ(content(buffer), (fields{text(NAME, "abc"), text(OTHER, "x")})) << line;
    }
}

TEST_F(TextForm, LongLinesAreSeveral)
{
    // A line has 8099 characters, its newline included; what follows them is a line of its own.
    for (size_t size : {8097u, 8098u, 8099u}) {
        Buffer buffer(1, 20000);
        std::string value(size - 5, 'v');
        EXPECT_EQ(read_text(buffer, "NAME\t" + value + "\nOTHER\tx\n"), 1) << size;
        EXPECT_EQ(content(buffer), (fields{text(NAME, value), text(OTHER, "x")})) << size;
    }
    Buffer buffer(1, 20000);
    std::string value(8099 - 5, 'v');
    EXPECT_EQ(read_text(buffer, "NAME\t" + value + "OTHER\tabc\n"), 1);
    EXPECT_EQ(content(buffer), (fields{text(NAME, value), text(OTHER, "abc")}));
    EXPECT_EQ(read_text(buffer, "#" + std::string(8098, 'c') + "-OTHER\tabc\n"), 1);
    EXPECT_EQ(content(buffer), fields{text(NAME, value)});
}

TEST_F(TextForm, LongNamesAreNoNames)
{
    for (size_t size : {47u, 48u, 49u, 500u, 8000u}) {
        Buffer buffer;
        EXPECT_EQ(read_text(buffer, std::string(size, 'N') + "\tabc\n"), -1);
        EXPECT_EQ(getfberror(), FBETYPE);
        EXPECT_EQ(used(buffer), 8);
    }
}

TEST_F(TextForm, ZeroBytesInALineAreSurvived)
{
    Buffer buffer;
    read_text(buffer, std::string("NAME\tab\0c\nOTHER\tx\n", 19));
    read_text(buffer, std::string("\0NAME\tabc\n", 10));
    read_text(buffer, std::string("NA\0ME\tabc\n", 10));
    EXPECT_LE(content(buffer).size(), 5u);
}

TEST_F(TextFormWithoutNames, NumbersStillWork)
{
    Buffer buffer;
    EXPECT_EQ(read_text(buffer, std::to_string(NAME) + "\tabc\n"), 1);
    EXPECT_EQ(content(buffer), fields{text(NAME, "abc")});
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(read_text(buffer, "NAME\tabc\n"), -1);
    EXPECT_EQ(getfberror(), FBETYPE);
    EXPECT_TRUE(log.has("FDL0801")) << log.text();
    EXPECT_EQ(content(buffer), fields{text(NAME, "abc")});
}
