// The edges of the text bridge: numbers that don't fit, files of a step's size, areas that are just large enough,
// and what is left open or set after a failure.
#include "buffers/bridge.h"

#include "wire/refuse.h"

#include <sys/stat.h>
#include <thread>

using namespace bridge;

namespace {

struct BridgeEdge : Bridge {};

// Records of one number.
void load_numbers(void)
{
    auto row = [](const std::string &name, int32_t type, int64_t size) {
        return record_of(name, {{.name = "n", .type = type}}, size);
    };
    ASSERT_EQ(load_records({row("short", sdl::SHORT, 2), row("int", sdl::INT, 4), row("long", sdl::LONG, 8)}),
              1);
}

template <typename T> T number_from(const char *record, std::string text)
{
    T number = 77;
    EXPECT_EQ(_make_struct_from_pbindata((char *)record, (char *)&number, sizeof number, text.data()), 1);
    return number;
}

}

TEST_F(BridgeEdge, NumbersAreDecimal)
{
    load_numbers();
    EXPECT_EQ(number_from<int32_t>("int", "010"), 10);
    EXPECT_EQ(number_from<int32_t>("int", "0x10"), 0);
    EXPECT_EQ(number_from<int32_t>("int", " -7 apples"), -7);
    EXPECT_EQ(number_from<int32_t>("int", ""), 0);
}

TEST_F(BridgeEdge, NumbersKeepTheirLowBits)
{
    load_numbers();
    EXPECT_EQ(number_from<int32_t>("int", "4294967297"), 1);
    EXPECT_EQ(number_from<int16_t>("short", "65536"), 0);
    EXPECT_EQ(number_from<int16_t>("short", "98304"), INT16_MIN);
    EXPECT_EQ(number_from<int64_t>("long", "6442450944"), -2147483648LL) << "and their sign";
    EXPECT_EQ(number_from<int32_t>("int", "99999999999999999999"), -1) << "the largest long";
}

TEST_F(BridgeEdge, ALongIsWrittenWhole)
{
    load_numbers();
    int64_t number = 0x1122334455667788;
    char out[32];
    memset(out, '?', sizeof out);
    ASSERT_EQ(_make_pbodata_from_struct((char *)"long", out, 8, (char *)&number), 1);
    EXPECT_EQ(std::string(out, 23), "1234605616436508552\r\n\x7f?");
}

TEST_F(BridgeEdge, ACarriageReturnTakesOneByteWithIt)
{
    fld::list fields;
    EXPECT_EQ(fields_from("A\tone\r\r\nB\tx\n", &fields), 1);
    EXPECT_EQ(fields, (fld::list{fld::a_string(A, "one\r\r"), fld::a_string(B, "x")}));
    EXPECT_EQ(fields_from("\rA\tx\n", &fields), -1);
    EXPECT_EQ(getfberror(), FBENOENT) << "a name, not the end";
}

TEST_F(BridgeEdge, EachValueHasALengthOfItsOwn)
{
    for (const char *lengths : {"FDL_LEN=TRU", "FDL_LEN=ERR"}) {
        setenv("VORN_SEMANTICS", lengths, 1);
        fld::Buffer buffer(
            {fld::a_string(A, "ab"), fld::a_string(B, "a longer value"), fld::a_string(A, "c")});
        EXPECT_EQ(to_text("A\nB\n\n", buffer), "ab\ta longer value\r\nc\t\r\n\x7f\n") << lengths;
        EXPECT_EQ(to_file("A\nB\n\n", new_path(), buffer), "ab\ta longer value\r\nc\t\r\n\n\n") << lengths;
    }
}

TEST_F(BridgeEdge, ColumnsWithoutValuesWriteNothing)
{
    fld::Buffer buffer({fld::a_string(A, "a")});
    std::string none, tabs(74, '\t');
    for (int i = 0; i < 75; i++)
        none += "B\n";
    EXPECT_EQ(to_text(none + "\n", buffer), "\n\x7f\n");
    EXPECT_EQ(to_text(none + "A\n\n", buffer), tabs + "\ta\r\n\x7f\n");
    EXPECT_EQ(to_text("A\n" + none + "\n", buffer), "a" + tabs + "\t\r\n\x7f\n");
    EXPECT_EQ(to_file(none + "A\n" + none + "\n", new_path(), buffer), tabs + "\ta" + tabs + "\t\r\n\n\n");
}

TEST_F(BridgeEdge, AValueThatCantBeHadCostsItsRowAlone)
{
    fld::Buffer buffer({fld::a_carray(BYTES, std::string(70000, 'b')), fld::a_carray(BYTES, "small"),
                        fld::an_int(COUNT, 1), fld::an_int(COUNT, 2)},
                       80000);
    std::string text(100000, '?'), form = "COUNT\nBYTES\n\n";
    ASSERT_EQ(_make_pbodata_from_field(form.data(), text.data(), buffer), 1);
    EXPECT_EQ(std::string(text.c_str()), "1\t" + std::string(70000, 'b') + "\r\n2\tsmall\r\n\x7f\n");
}

TEST_F(BridgeEdge, AFullDiskIsAFailure)
{
    fld::Buffer buffer(
        {fld::a_string(PATH, "/dev/full"), fld::a_carray(BITMAP, "bytes"), fld::a_string(A, "a")});
    EXPECT_EQ(to_text("A\nTP_BITMAP\n\n", buffer), "-1");
    EXPECT_EQ(getfberror(), FBEOS);
    EXPECT_EQ(to_file("A\n\n", "/dev/full", buffer), "-1");
    EXPECT_EQ(getfberror(), FBEOS);
}

TEST_F(BridgeEdge, FilesAreClosed)
{
    fld::Buffer buffer(
        {fld::a_string(PATH, new_path()), fld::a_carray(BITMAP, "bytes"), fld::a_string(A, "a")});
    fld::Buffer full({fld::a_string(PATH, "/dev/full"), fld::a_carray(BITMAP, "bytes")});
    fld::list fields;
    int before = next_descriptor();
    for (const std::string &path : {write_definition("bytes"), log.directory, log.directory + "/nowhere"})
        fields_from("FILENAM\t" + path + "\n", &fields);
    to_text("TP_BITMAP\nA\n\n", buffer);
    to_text("TP_BITMAP\n\n", full);
    to_file("A\n\n", log.directory + "/rows", buffer);
    to_file("A\n\n", "/dev/full", buffer);
    EXPECT_EQ(next_descriptor(), before);
}

TEST_F(BridgeEdge, AnEarlierErrorIsForgotten)
{
    fld::Buffer buffer({fld::a_string(A, "a")});
    fld::list fields;
    EXPECT_EQ(fields_from("NOBODY\tx\n", &fields), -1);
    ASSERT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(fields_from("FILENAM\t" + log.directory + "/nowhere\n", &fields), -1);
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(fields_from("NOBODY\tx\n", &fields), -1);
    EXPECT_EQ(to_file("", new_path(), buffer), "\n");
    EXPECT_EQ(getfberror(), 0);
}

TEST_F(BridgeEdge, AFileNeedsItsFieldInTheTable)
{
    load_names({{"A", a_key}});
    fld::list fields;
    EXPECT_EQ(fields_from("A\tx\nFILENAM\t" + write_definition("bytes") + "\n", &fields), -1);
    EXPECT_EQ(getfberror(), FBENOENT);
    EXPECT_EQ(fields, (fld::list{fld::a_string(A, "x")}));
}

TEST_F(BridgeEdge, TheBufferGrowsByTheFileAndAHeader)
{
    std::string bytes(0x400001, 'b');
    FBUF *fbuf = (FBUF *)tpalloc((char *)"FIELD", nullptr, 0),
         *plain = (FBUF *)tpalloc((char *)"FIELD", nullptr, 0);
    plain = (FBUF *)tprealloc((char *)plain, tpgetasize((char *)plain) + (long)bytes.size() + 136);
    EXPECT_EQ(from_text(&fbuf, "FILENAM\t" + write_definition(bytes) + "\n"), 1);
    EXPECT_EQ(tpgetasize((char *)fbuf), tpgetasize((char *)plain));
    tpfree((char *)fbuf);
    tpfree((char *)plain);
}

TEST_F(BridgeEdge, ABufferThatCantGrowIsLeftAsItWas)
{
    std::string line = "FILENAM\t" + write_definition(std::string(5 << 20, 'b')) + "\n";
    FBUF *fbuf = (FBUF *)tpalloc((char *)"FIELD", nullptr, 0), *before = fbuf;
    ASSERT_EQ(from_text(&fbuf, "A\tx\n"), 1);  // the table is loaded
    bool was_refused_growth = false;
    for (int nth = 1;; nth++) {
        std::string text = line;
        faults::fail_allocation(nth);
        int result = _make_field_from_pbindata(&fbuf, text.data());
        faults::disarm_allocations();
        if (!faults::allocation_failed())
            break;
        EXPECT_EQ(result, -1) << nth;
        EXPECT_TRUE(fld::equal(fbuf, {fld::a_string(A, "x")})) << nth;
        if (gettperrno() == TPEOS && getfberror() == 0) {
            EXPECT_EQ(fbuf, before) << nth;
            was_refused_growth = true;
        }
        set_tperrno(0);
    }
    EXPECT_TRUE(was_refused_growth);
    tpfree((char *)fbuf);
}

TEST_F(BridgeEdge, ANumberAtTheEndOfTheWorkArea)
{
    for (int size : {0x3fffff, 0x3ffff0}) {
        std::string value((size_t)size, 'b');
        fld::Buffer buffer({fld::a_carray(BYTES, value), fld::number(price_key, -1.7e308)}, 0x400800);
        std::string text = to_file("BYTES\nBYTES\nPRICE\n\n", new_path(), buffer);
        EXPECT_EQ(text.substr(0, 2 * (size_t)size + 2), value + "\t" + value + "\t");
        EXPECT_EQ(strtod(text.c_str() + 2 * (size_t)size + 2, nullptr), -1.7e308);
        EXPECT_EQ(text.substr(text.size() - 4), "\r\n\n\n");
    }
}

TEST_F(BridgeEdge, FilesOfAStepsSize)
{
    for (int size : {0, 1, (1 << 20) - 1, 1 << 20, (1 << 20) + 1, 2 << 20}) {
        std::string path = write_definition(std::string((size_t)size, 'f'));
        int length = -1;
        char *block = get_value(path.data(), &length);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(length, size);
        EXPECT_EQ(std::string(block, (size_t)length), std::string((size_t)size, 'f'));
        free(block);
    }
}

TEST_F(BridgeEdge, APipeIsReadToItsEnd)
{
    std::string path = log.directory + "/pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([&] {
        FILE *file = fopen(path.c_str(), "w");
        fputs("first", file);
        fflush(file);
        fputs(" second", file);
        fclose(file);
    });
    fld::list fields;
    EXPECT_EQ(fields_from("FILENAM\t" + path + "\n", &fields), 1);
    writer.join();
    EXPECT_EQ(fields, (fld::list{fld::a_carray(BITMAP, "first second")}));
}

TEST_F(BridgeEdge, PiecesOfNothing)
{
    char text[] = "A", separator;
    int offset;
    EXPECT_EQ(chk_name(nullptr), -1);
    EXPECT_EQ(_get_name_from_form(nullptr), 0);
    EXPECT_EQ(_get_value_from_pbsdata(nullptr, &separator), 0);
    EXPECT_EQ(_get_value_from_pbsdata(text, nullptr), 0);
    EXPECT_EQ(_get_name_value_from_pbfdata(nullptr, &offset), 0);
    EXPECT_EQ(_get_name_value_from_pbfdata(text, nullptr), 0);
}
