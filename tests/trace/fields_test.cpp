// The lines that the field calls hand to the trace hook.
#include "fields/values.h"

#include "runtime/trace.h"
#include "support/sdlfile.h"
#include "trace/hook.h"
#include "vorn/ffields.h"

#include <stdio.h>

using namespace fv;

namespace {

const int KEY = key_of(FB_INT, 1), TEXT = key_of(FB_STRING, 1), NONE = key_of(FB_INT, 99);

// What the calls work on.
struct Things {
    Buffer buffer{stored(1, i(5)), stored(1, t("text")), stored(2, i(6))}, other{stored(1, i(7))};
    int key = 0, nth = 0, length = 0, value = 5, from = 0, keys[2] = {KEY, 0};
    char area[400] = "", record[8] = "", shape[6] = "shape", member[7] = "number";
    FILE *stream = tmpfile();

    ~Things() { fclose(stream); }
    char *number() { return (char *)&value; }
};

const char INVALID[] = " [4 : FBEINVAL (invalid argument)]", ABSENT[] = " [6 : FBENOENT (not found)]";
const char UNKNOWN[] = " [15 : FBEBADSTRUCT (bad struct)]";

struct traced_call {
    const char *function;
    std::function<void(Things &)> run;
    int exit_phase;
    std::string exit;  // "*" at its end: anything
};

std::string told(const char *function, const std::string &result)
{
    return std::string(function) + " = " + result;
}

bool matches(const std::string &text, std::string wanted)
{
    if (wanted.empty() || wanted.back() != '*')
        return text == wanted;
    wanted.pop_back();
    return text.compare(0, wanted.size(), wanted) == 0;
}

void expect_traced(const traced_call &each)
{
    SCOPED_TRACE(std::string(each.function) + " " + each.exit);
    Things on;
    take_traced();
    each.run(on);
    std::vector<traced_line> lines = take_traced();
    ASSERT_GE(lines.size(), 2u);
    const traced_line &entry = lines.front(), &exit = lines.back();
    EXPECT_EQ(entry.function, each.function);
    EXPECT_EQ(entry.phase, TRACE_ENTRY);
    EXPECT_TRUE(matches(entry.text, std::string(each.function) + "(*")) << entry.text;
    EXPECT_EQ(entry.text.back(), ')');
    EXPECT_EQ(exit.function, each.function);
    EXPECT_EQ(exit.phase, each.exit_phase);
    EXPECT_TRUE(matches(exit.text, told(each.function, each.exit))) << exit.text;
    for (const traced_line &line : lines)
        EXPECT_EQ(line.one, 1);
}

// A call with the result that it traces, and its failure for want of a buffer.
#define INT_CALL(NAME, RESULT, ...) \
    {#NAME, [](Things &on) { NAME(on.buffer, __VA_ARGS__); }, TRACE_RESULT, RESULT}, \
    { \
#NAME, [](Things & on) { NAME(nullptr, __VA_ARGS__); }, TRACE_ERROR, std::string("-1") + INVALID \
    }
#define POINTER_CALL(NAME, ...) \
    {#NAME, [](Things &on) { NAME(on.buffer, __VA_ARGS__); }, TRACE_RESULT, "*"}, \
    { \
#NAME, [](Things & on) { NAME(nullptr, __VA_ARGS__); }, TRACE_ERROR, std::string("NULL") + INVALID \
    }

}  // namespace

TEST(FieldTrace, OfConversionsAndCompatibleCalls)
{
    const traced_call calls[] = {
        INT_CALL(fbgett, "1", KEY, on.area, &on.length, FB_STRING),
        INT_CALL(fbputt, "1", KEY, on.number(), 0, FB_INT),
        INT_CALL(fbgetntht, "0", KEY, on.number(), 0, FB_INT),
        INT_CALL(fbchg_tu, "1", KEY, 0, on.number(), 0),
        INT_CALL(fbdelall_tu, "1", on.keys),
        INT_CALL(fbget_tu, "1", KEY, 0, on.area, &on.length),
        INT_CALL(fbgetlast_tu, "1", KEY, &on.nth, on.area, &on.length),
        INT_CALL(fbnext_tu, "1", &on.key, &on.nth, on.area, nullptr),
        INT_CALL(fbchg_tut, "1", KEY, 0, on.number(), 0, FB_INT),
        INT_CALL(fbget_tut, "1", KEY, 0, on.area, &on.length, FB_STRING),
        POINTER_CALL(fbgetvalt, KEY, 0, &on.length, FB_STRING),
        POINTER_CALL(fbgetval_last_tu, KEY, &on.nth, &on.length),
        {"fbget_tu", [](Things &on) { Fget(on.buffer, NONE, 0, on.area, nullptr); }, TRACE_ERROR,
         std::string("-1") + ABSENT},
        {"fbgetvalt", [](Things &on) { fbgetvalt(on.buffer, NONE, 0, nullptr, FB_INT); }, TRACE_ERROR,
         std::string("NULL") + ABSENT},
        {"fbgetvals_tu", [](Things &on) { Fvals(on.buffer, TEXT, 0); }, TRACE_RESULT, "\"text\""},
        {"fbgetvall_tu", [](Things &on) { Fvall(on.buffer, KEY, 0); }, TRACE_RESULT, "5"},
        {"fbgetvall_tu", [](Things &on) { Fvall(on.buffer, NONE, 0); }, TRACE_ERROR,
         std::string("0") + ABSENT},
        {"fbtypecvt", [](Things &on) { Ftypcvt(&on.length, FB_LONG, on.number(), FB_INT, 0); }, TRACE_RESULT,
         "*"},
        {"fbtypecvt", [](Things &on) { Ftypcvt(&on.length, FB_LONG, on.number(), FB_CARRAY, 0); },
         TRACE_ERROR, std::string("NULL") + INVALID},
        {"fbgetalloc_tu", [](Things &on) { free(Fgetalloc(on.buffer, KEY, 0, nullptr)); }, TRACE_RESULT,
         "*"},
        {"fbgetalloc_tut", [](Things &on) { free(CFgetalloc(on.buffer, KEY, 0, FB_INT, nullptr)); },
         TRACE_RESULT, "*"},
        {"fbgetalloc_tut", [](Things &on) { CFgetalloc(on.buffer, NONE, 0, FB_INT, nullptr); }, TRACE_ERROR,
         std::string("NULL") + ABSENT},
    };
    for (const traced_call &each : calls)
        expect_traced(each);
}

TEST(FieldTrace, OfWholeBuffersAndStreams)
{
    const traced_call calls[] = {
        INT_CALL(fbbufop, "1", on.other, FB_COPY),
        INT_CALL(fbwrite, "1", on.stream),
        INT_CALL(fbfprint, "1", on.stream),
        INT_CALL(fbextread, "1", on.stream),
        {"fbbufop", [](Things &on) { Fcmp(on.other, on.buffer); }, TRACE_RESULT, "-1"},  // no failure
        {"fbbufop_proj", [](Things &on) { Fproj(on.buffer, on.keys); }, TRACE_RESULT, "1"},
        {"fbread", [](Things &on) { Fread(on.buffer, on.stream); }, TRACE_ERROR, "-1 [7 : FBEOS (OS error)]"},
    };
    for (const traced_call &each : calls)
        expect_traced(each);
    Things on;
    take_traced();
    EXPECT_EQ(fbbufop_proj(nullptr, on.buffer, on.keys), -1);
    EXPECT_EQ(take_traced().size(), 0u);
}

TEST(FieldTrace, OfRecords)
{
    sdl::member number;
    number.name = "number", number.key = KEY;
    std::string path = write_definition(sdl::file_bytes({{"shape", {number}, 8, 8, 0}}));
    setenv("SDLFILE64", path.c_str(), 1);
    const traced_call calls[] = {
        INT_CALL(fbftos, "1", on.record, on.shape),
        INT_CALL(fbstof, "1", on.record, FB_CONCAT, on.shape),
        {"fbftos", [](Things &on) { fbftos(on.buffer, on.record, on.member); }, TRACE_ERROR,
         std::string("-1") + UNKNOWN},
        {"fbsnull", [](Things &on) { fbsnull(on.record, on.member, 0, on.shape); }, TRACE_RESULT, "1"},
        {"fbsnull", [](Things &on) { fbsnull(on.record, on.member, 9, on.shape); }, TRACE_ERROR,
         std::string("-1") + UNKNOWN},
        {"_vsinit", [](Things &on) { fbstinit(on.record, on.shape); }, TRACE_RESULT, "1"},
        {"_vsinit", [](Things &on) { fbstelinit(on.record, on.member, on.member); }, TRACE_ERROR,
         std::string("-1") + UNKNOWN},
    };
    for (const traced_call &each : calls)
        expect_traced(each);
}
