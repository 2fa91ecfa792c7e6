// The text bridge with what nobody should hand over: texts without separators, paths and values of any
// length, definitions whose numbers make no sense, and no memory.
#include "buffers/bridge.h"

#include <sys/stat.h>

using namespace bridge;

namespace {

struct HostileBridge : Bridge {};

// In a block that ends with its NUL.
std::vector<char> tight(const std::string &text)
{
    std::vector<char> block(text.c_str(), text.c_str() + text.size() + 1);
    block.shrink_to_fit();
    return block;
}

}

TEST_F(HostileBridge, NothingIsReadBehindATextsEnd)
{
    for (const char *text :
         {"", "A", "A\t", "A\tx", "A\tx\r", "\r", "\t", "\t\t", "A\tx\n\r", "FILENAM", "FILENAM\t"}) {
        std::vector<char> block = tight(text);
        fld::Buffer buffer;
        FBUF *fbuf = buffer;
        _make_field_from_pbindata(&fbuf, block.data());
        EXPECT_STREQ(block.data(), text) << "as it was";
        int offset = -1, length = _get_name_value_from_pbfdata(block.data(), &offset);
        EXPECT_LE(offset, length);
        EXPECT_LE(length, (int)strlen(text));
        block = tight(text);
        char separator;
        EXPECT_LE(_get_value_from_pbsdata(block.data(), &separator), (int)strlen(text));
        block = tight(text);
        EXPECT_LE(_get_name_from_form(block.data()), (int)strlen(text));
    }
}

TEST_F(HostileBridge, ElementsThatMakeNoSense)
{
    std::vector<sdl::record> records;
    for (int32_t type : {sdl::CHAR, sdl::STRING, sdl::CARRAY})
        for (int32_t element : {0, -1, 5, INT_MAX, INT_MIN})
            records.push_back(record_of("r" + std::to_string(records.size()),
                                        {{.name = "t", .type = type, .count = 4, .element = element}}, 4));
    ASSERT_EQ(load_records(records), 1);
    for (const sdl::record &one : records) {
        std::string name = one.name;
        for (const char *text : {"", "a\tb\tc\td\te", "\t\t\t\t\t\t", "abcdefgh"}) {
            std::vector<char> record(4, 'r'), block = tight(text), out(64);
            _make_struct_from_pbindata(name.data(), record.data(), 4, block.data());
            EXPECT_STREQ(block.data(), text);
            EXPECT_EQ(_make_pbodata_from_struct(name.data(), out.data(), 4, record.data()), 1);
        }
    }
}

TEST_F(HostileBridge, LengthsThatHoldNoRecord)
{
    ASSERT_EQ(load_records({short_record()}), 1);
    for (int length : {0, 7, -1, INT_MIN}) {
        std::string text = "1\ta", record = "12345678";
        char out[8] = "??";
        EXPECT_EQ(_make_struct_from_pbindata((char *)"pair", record.data(), length, text.data()), 1);
        EXPECT_EQ(record, "12345678");
        EXPECT_EQ(_make_pbodata_from_struct((char *)"pair", out, length, record.data()), 1);
        EXPECT_STREQ(out, "\x7f?");
    }
}

TEST_F(HostileBridge, ARecordWithoutMembersIsAnEmptyRow)
{
    ASSERT_EQ(load_records({record_of("none", {{.name = "t", .type = sdl::INT, .count = 0}}, 4)}), 1);
    char area[8] = "?";
    EXPECT_EQ(_make_pbodata_from_struct((char *)"none", area + 1, 4, (char *)"data"), 1);
    EXPECT_EQ(std::string(area, 4), "?\r\n\x7f") << "nothing is written in front of the area";
}

TEST_F(HostileBridge, PathsThatAreTooLongAreNoPaths)
{
    std::string longest = log.directory + "/" + std::string(98 - log.directory.size(), 'p');
    std::string longer = longest + "p";
    ASSERT_EQ(longest.size(), 99u);
    fclose(fopen(longest.c_str(), "w"));
    fclose(fopen(longer.c_str(), "w"));
    int length = -1;
    char *block = get_value(longest.data(), &length);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(length, 0);
    free(block);
    EXPECT_EQ(get_value(longer.data(), &length), nullptr);
    EXPECT_EQ(get_value((char *)"", &length), nullptr);
    for (const std::string &path : {longer, std::string(5000, 'x')}) {
        fld::Buffer buffer({fld::a_string(PATH, path), fld::a_carray(BITMAP, "bytes")}, 8192);
        EXPECT_EQ(to_text("TP_BITMAP\n\n", buffer), "-1");
        EXPECT_EQ(getfberror(), FBEINVAL);
    }
    fld::Buffer fits({fld::a_string(PATH, longest), fld::a_carray(BITMAP, "bytes")});
    EXPECT_EQ(to_text("TP_BITMAP\n\n", fits), "\r\n\x7f\n");
    EXPECT_EQ(read_file(longest), "bytes");
    EXPECT_EQ(read_file(longer), "");
}

TEST_F(HostileBridge, AFolderAndAnEmptyFileAreNoValue)
{
    int length = 0;
    EXPECT_EQ(get_value(log.directory.data(), &length), nullptr);
    fld::list fields;
    EXPECT_EQ(fields_from("FILENAM\t" + write_definition(""), &fields), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
}

TEST_F(HostileBridge, APathThatIsNoStringIsNotRead)
{
    load_names({{"NEWFILE", fld::key(fld::INT, PATH)}, {"TP_BITMAP", bitmap_key}, {"A", a_key}});
    fld::Buffer buffer({fld::number<int32_t>(fld::key(fld::INT, PATH), 0x41414141), fld::a_string(A, "a"),
                        fld::a_carray(BITMAP, "bytes")});
    char out[16];
    EXPECT_EQ(get_file_name(buffer, out), -1);
    EXPECT_EQ(to_text("A\n\n", buffer), "a\r\n\x7f\n");
    EXPECT_EQ(to_text("TP_BITMAP\n\n", buffer), "-1");
}

TEST_F(HostileBridge, TextsLargerThanTheWorkAreaGoToTheFileWhole)
{
    fld::list fields(3, fld::a_carray(BYTES, std::string(2 << 20, 'b')));
    fld::Buffer buffer(fields, 7 << 20);
    std::string form = "BYTES\nBYTES\nBYTES\n\n", value(2 << 20, 'b');
    std::string row = value + "\t" + value + "\t" + value + "\r\n";
    EXPECT_EQ(to_file(form, new_path(), buffer), row + row + row + "\n\n");
}

TEST_F(HostileBridge, NumbersOfTheLargestSize)
{
    fld::list fields(50, fld::number(price_key, -1.7e308));
    fld::Buffer buffer(fields, 4096);
    std::string text = to_text("PRICE\n\n", buffer);
    EXPECT_GT(text.size(), 50 * 300u);
    EXPECT_EQ(text.substr(text.size() - 4), "\r\n\x7f\n");
}

TEST_F(HostileBridge, NullArguments)
{
    char text[] = "A\tx\n", out[16];
    fld::Buffer buffer;
    FBUF *fbuf = buffer, *none = nullptr;
    EXPECT_EQ(_make_field_from_pbindata(nullptr, text), -1);
    EXPECT_EQ(getfberror(), FBEINVAL);
    EXPECT_EQ(_make_field_from_pbindata(&none, text), -1);
    EXPECT_EQ(_make_field_from_pbindata(&fbuf, nullptr), -1);
    EXPECT_EQ(_make_pbodata_from_field(nullptr, out, fbuf), -1);
    EXPECT_EQ(_make_pbodata_from_field(text, nullptr, fbuf), -1);
    EXPECT_EQ(_make_pbodata_from_field(text, out, nullptr), -1);
    EXPECT_EQ(_make_pbfodata_from_field(text, nullptr, fbuf), -1);
    EXPECT_EQ(_make_pbfodata_from_field(text, out, nullptr), -1);
    EXPECT_EQ(_make_struct_from_pbindata(nullptr, out, 4, text), -1);
    EXPECT_EQ(_make_pbodata_from_struct(nullptr, out, 4, text), -1);
    EXPECT_EQ(_insert_value_to_pbodata(3, out, nullptr, 1, 4), -1);
    EXPECT_EQ(get_value(nullptr, nullptr), nullptr);
}

TEST_F(HostileBridge, WithoutMemoryEachCallSaysSo)
{
    fld::Buffer buffer({fld::a_string(A, "a")});
    EXPECT_EQ(to_text("A\n\n", buffer), "a\r\n\x7f\n");  // the context has its scratch now
    faults::fail_allocation(1);
    EXPECT_EQ(to_text("A\n\n", buffer), "-1");
    EXPECT_EQ(getfberror(), FBEMALLOC);
    for (int nth = 1; nth <= 2; nth++) {
        faults::fail_allocation(nth);
        EXPECT_EQ(to_file("A\n\n", new_path(), buffer), "-1");
        EXPECT_EQ(getfberror(), FBEMALLOC);
    }
    std::string path = write_definition(std::string(3 << 20, 'f'));
    int length = 0;
    faults::fail_allocation(1);
    EXPECT_EQ(get_value(path.data(), &length), nullptr);
    EXPECT_EQ(getfberror(), FBESYSTEM);
    faults::fail_allocation(3);
    EXPECT_EQ(get_value(path.data(), &length), nullptr);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    faults::disarm_allocations();
    char *block = get_value(path.data(), &length);
    EXPECT_EQ(length, 3 << 20);
    free(block);
}
