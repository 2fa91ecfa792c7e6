// Names and keys: the field table files, one or several, good and bad, and the translations.
#include "fields/fixture.h"

#include "fields/fbcommon3.h"
#include "support/fdlfile.h"
#include "support/fixtures.h"
#include "support/meeting.h"
#include "support/sdlfile.h"

#include <unistd.h>

using namespace fld;

namespace {

struct FieldNames : FieldTest {
    LogFile log;

    static void use(const std::string &value) { setenv("FDLFILE", value.c_str(), 1); }
    // A file with these fields, in use.
    static void use(const std::vector<fdl::field> &fields, int32_t rows = 0)
    {
        use(write_definition(fdl::file_bytes(fields, rows)));
    }
    int logged(const std::string &part) const
    {
        std::string text = log.text();
        int count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            count++;
        return count;
    }
};

int key_of(const std::string &name)
{
    return fbget_fldkey(chars(name.c_str()));
}

std::string name_of(int key)
{
    char *name = fbget_fldname(key);
    return name == nullptr ? "(null)" : name;
}

std::vector<fdl::field> fields_of(int count, const std::string &prefix = "FIELD_", int base = 100)
{
    std::vector<fdl::field> fields;
    for (int i = 0; i < count; i++)
        fields.push_back({prefix + std::to_string(i), fbmake_fldkey(1 + i % 8, base + i)});
    return fields;
}

void expect_all(const std::vector<fdl::field> &fields)
{
    for (const fdl::field &one : fields) {
        FieldTest::stale();
        ASSERT_EQ(key_of(one.name), one.key) << one.name;
        ASSERT_EQ(getfberror(), 0);
        ASSERT_EQ(name_of(one.key), one.name);
        ASSERT_EQ(getfberror(), 0);
    }
}

void expect_unknown(const std::string &name = "NO_SUCH_FIELD", int key = 12345678)
{
    EXPECT_CALL(key_of(name), 0, FBENOENT);
    EXPECT_CALL(fbget_fldname(key), nullptr, FBENOENT);
}

void set_word(std::string &bytes, size_t offset, int32_t value)
{
    bytes.replace(offset, 4, raw(value));
}

}  // namespace

// ---- one file

TEST_F(FieldNames, TranslateBothWays)
{
    use({{"NAME", key(STRING, 1)}, {"AGE", key(SHORT, 2)}, {"PAY", key(DOUBLE, 3)}});
    EXPECT_CALL(key_of("AGE"), key(SHORT, 2), 0);
    EXPECT_EQ(_fname_fldkey_tab_loaded, 1);
    EXPECT_CALL(name_of(key(STRING, 1)), "NAME", 0);
    EXPECT_STREQ(fbget_strfldtype(key_of("PAY")), "double");
    expect_unknown();
    EXPECT_CALL(key_of("age"), 0, FBENOENT);
    EXPECT_CALL(key_of("AG"), 0, FBENOENT);
    EXPECT_CALL(key_of("AGES"), 0, FBENOENT);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FieldNames, TablesOfEverySizeAreSearched)
{
    for (int count : {1, 2, 3, 12, 13, 64, 511, 512, 513, 514, 1000, 1024}) {
        SCOPED_TRACE(count);
        _fname_hash_mask = 0;  // as in a process that loads for the first time
        auto fields = fields_of(count);
        use(fields);
        expect_all(fields);
        EXPECT_EQ(_fname_hash_mask, count - 1);
        EXPECT_EQ(_fname_count, count);
        EXPECT_EQ(_fldkey_count, count);
        expect_unknown();
        fbkeynm_unload();
    }
}

TEST_F(FieldNames, TablesWithEmptyRows)
{
    for (int rows : {2, 12, 100, 512, 513, 700}) {
        SCOPED_TRACE(rows);
        _fname_hash_mask = 0;
        auto fields = fields_of(rows / 2);
        use(fields, rows);
        expect_all(fields);
        expect_unknown();
        fbkeynm_unload();
    }
}

TEST_F(FieldNames, RowsThatOnlyProbingReaches)
{
    // Mask 11 is 1011 in binary: the rows with bit 2 set are no start rows.
    auto fields = fields_of(12, "N");
    use(fields);
    expect_all(fields);
    for (const auto &one : fields)
        EXPECT_EQ(_fname_hash(one.name.c_str()) & 4, 0) << one.name;
    int row = _find_fnamei_by_fname(fields[7].name.c_str());
    ASSERT_GE(row, 0);
    EXPECT_STREQ(_fldname[row].name, fields[7].name.c_str());
    row = _find_fldkeyi_by_fldkey(fields[7].key);
    ASSERT_GE(row, 0);
    EXPECT_EQ(_fldkey[row].key, fields[7].key);
    EXPECT_EQ(_find_fnamei_by_fname("absent"), -1);
    EXPECT_EQ(_find_fldkeyi_by_fldkey(1), -1);
}

TEST_F(FieldNames, HashesOfSmallAndLargeTables)
{
    use({{"AB", 1}});
    ASSERT_EQ(key_of("AB"), 1);
    _fname_hash_mask = 255;
    EXPECT_EQ(_fname_hash("AB"), 131);
    EXPECT_EQ(_fname_hash("\xff"), 255);  // characters are signed bytes: -1
    EXPECT_EQ(_fname_hash(""), 0);
    _fname_hash_mask = 511;
    EXPECT_EQ(_fname_hash("AB"), 131);
    EXPECT_EQ(_fname_hash("\xff"), 511);
    EXPECT_EQ(_fname_hash("\xff\xfe"), 512 - 3);
    _fname_hash_mask = 0xffff;
    EXPECT_EQ(_fname_hash("AB"), 0x4142);
    EXPECT_EQ(_fname_hash("ABC"), 0x4142 + 0x4300);
    EXPECT_EQ(_fname_hash("\xff"), 0xff00);
    EXPECT_EQ(_fname_hash(std::string(47, 'a').c_str()), (23 * 0x6161 + 0x6100) & 0xffff);
    EXPECT_EQ(_fname_hash(std::string(1000, 'a').c_str()), _fname_hash(std::string(47, 'a').c_str()));
    // In memory: 04 03 02 01.
    EXPECT_EQ(_fldkey_hash(0x01020304), 0x0403 + 0x0201);
    _fname_hash_mask = 512;
    EXPECT_EQ(_fldkey_hash(0x01020304), (0x0403 + 0x0201) & 512);
    _fname_hash_mask = 0;
    fbkeynm_unload();
    use(fields_of(12));
    ASSERT_NE(key_of("FIELD_0"), 0);
    EXPECT_EQ(_fldkey_hash(1000), 1000 % 12);
}

TEST_F(FieldNames, NegativeKeysAreFound)
{
    std::vector<fdl::field> fields = {{"MINUS", -5}, {"LEAST", INT_MIN}, {"ONE", -1}, {"PLUS", 5}};
    use(fields);
    expect_all(fields);
}

TEST_F(FieldNames, LongestNamesAreWhole)
{
    for (int count : {4, 600}) {
        SCOPED_TRACE(count);
        _fname_hash_mask = 0;
        auto fields = fields_of(count);
        for (size_t i = 0; i < 3; i++)
            fields[i].name = std::string(46, 'n') + (char)('a' + i);
        use(fields);
        expect_all(fields);
        EXPECT_CALL(key_of(std::string(46, 'n')), 0, FBENOENT);
        EXPECT_CALL(key_of(std::string(46, 'n') + "ab"), 0, FBENOENT);
        EXPECT_CALL(key_of(std::string(5000, 'n')), 0, FBENOENT);
        fbkeynm_unload();
    }
}

TEST_F(FieldNames, NullNameIsUnknown)
{
    use({{"NAME", 1}});
    stale();
    EXPECT_EQ(fbget_fldkey(nullptr), 0);
    EXPECT_TRUE(getfberror() == FBENOENT || getfberror() == FBEINVAL);
    EXPECT_EQ(key_of("NAME"), 1);
}

TEST_F(FieldNames, ValuesNeedNoTable)
{
    Buffer fbuf;
    for (const field &one : one_of_each())
        EXPECT_EQ(put(fbuf, one), 1);
    EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    EXPECT_EQ(log.text(), "");
}

// ---- several files

TEST_F(FieldNames, FilesAreSearchedAsOne)
{
    auto a = fields_of(5, "A_"), b = fields_of(7, "B_", 1000), c = fields_of(600, "C_", 5000);
    std::string paths[] = {write_definition(fdl::file_bytes(a)), write_definition(fdl::file_bytes(b, 9)),
                           write_definition(fdl::file_bytes(c))};
    use(paths[0] + "," + paths[1]);
    expect_all(a);
    expect_all(b);
    expect_unknown();
    EXPECT_EQ(_fname_hash_mask, 5 + 9 - 2 + 1);
    EXPECT_EQ(_fname_count, 14);
    fbkeynm_unload();
    _fname_hash_mask = 0;
    use(paths[0] + "," + paths[1] + "," + paths[2]);
    expect_all(a);
    expect_all(b);
    expect_all(c);
    expect_unknown();
    EXPECT_EQ(_fname_hash_mask, 5 + 9 + 600 - 3 + 1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FieldNames, EmptyItemsOfTheListVanish)
{
    auto a = fields_of(3, "A_"), b = fields_of(4, "B_", 1000);
    std::string first = write_definition(fdl::file_bytes(a)), second = write_definition(fdl::file_bytes(b));
    use(",," + first + ",,," + second + ",");
    expect_all(a);
    expect_all(b);
    EXPECT_EQ(_fname_hash_mask, 3 + 4 - 2 + 1);
    fbkeynm_unload();
    _fname_hash_mask = 0;
    use("," + first + ",");
    expect_all(a);
    EXPECT_EQ(_fname_hash_mask, 2);
}

TEST_F(FieldNames, ListWithoutFilesIsALoadWithoutRows)
{
    for (const char *value : {"", ",", ",,,,"}) {
        SCOPED_TRACE(value);
        _fname_hash_mask = 0;
        use(value);
        expect_unknown();
        EXPECT_EQ(_fname_fldkey_tab_loaded, 1);
        EXPECT_EQ(_fname_count, 0);
        EXPECT_EQ(_fname_hash_mask, 1);  // 1 is added when there isn't exactly one file
        EXPECT_CALL(fbget_fldname(0), nullptr, FBENOENT);
        EXPECT_CALL(key_of(""), 0, FBENOENT);
        fbkeynm_unload();
        EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(FieldNames, ListMayBeLong)
{
    auto a = fields_of(2, "A_"), b = fields_of(2, "B_", 1000);
    std::string value = write_definition(fdl::file_bytes(a));
    value += std::string(3000, ',') + write_definition(fdl::file_bytes(b));
    use(value);
    expect_all(a);
    expect_all(b);
    fbkeynm_unload();
    use("/" + std::string(5000, 'x'));
    EXPECT_CALL(key_of("A_0"), 0, 0);
    EXPECT_EQ(logged("FDL0502"), 1);
}

// ---- unload

TEST_F(FieldNames, UnloadAndReload)
{
    auto a = fields_of(6, "A_"), b = fields_of(40, "B_", 1000);
    std::string first = write_definition(fdl::file_bytes(a)), second = write_definition(fdl::file_bytes(b));
    use(first);
    expect_all(a);
    fbkeynm_unload();
    EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    EXPECT_EQ(_fname_count, 0);
    EXPECT_EQ(_fldkey_count, 0);
    EXPECT_EQ(_fname_hash_mask, 5);
    use(second);
    expect_all(b);
    EXPECT_EQ(_fname_hash_mask, 5 + 39);
    EXPECT_CALL(key_of("A_0"), 0, FBENOENT);
    fbnmkey_unload();
    EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    for (int round = 0; round < 40; round++) {  // the mask grows beyond the table, and beyond 512
        use(first);
        expect_all(a);
        expect_unknown();
        fbnmkey_unload();
    }
    EXPECT_EQ(_fname_hash_mask, 5 + 39 + 40 * 5);
    for (int round = 0; round < 20; round++) {
        use(second);
        expect_all(b);
        expect_unknown();
        fbkeynm_unload();
    }
    EXPECT_GT(_fname_hash_mask, 512);
    fbkeynm_unload();
    fbnmkey_unload();
    EXPECT_EQ(_fname_hash_mask, 5 + 39 + 40 * 5 + 20 * 39);
}

TEST_F(FieldNames, UnloadClearsTheError)
{
    EXPECT_EQ(fbdelete(nullptr, 1, 1), -1);
    fbkeynm_unload();
    EXPECT_EQ(getfberror(), 0);
    EXPECT_EQ(fbdelete(nullptr, 1, 1), -1);
    fbnmkey_unload();
    EXPECT_EQ(getfberror(), 0);
}

TEST_F(FieldNames, TableIsNotReadAgainWhileLoaded)
{
    use({{"ONE", 1}});
    EXPECT_EQ(key_of("ONE"), 1);
    use("/nowhere");
    EXPECT_EQ(key_of("ONE"), 1);
    EXPECT_EQ(_ffile_load(), 1);
    EXPECT_EQ(log.text(), "");
}

// ---- what fails

TEST_F(FieldNames, VariableUnset)
{
    EXPECT_CALL(key_of("ONE"), 0, 0);
    EXPECT_EQ(logged("0100 getenv error : FDLFILE"), 1);
    EXPECT_EQ(logged("[FDL0501]"), 1);
    EXPECT_EQ(logged("3007 failed to load field key table"), 1);
    EXPECT_EQ(logged("[FDL0801]"), 1);
    EXPECT_EQ(log.lines(), 2);
    EXPECT_CALL(fbget_fldname(1), nullptr, 0);
    EXPECT_EQ(logged("[FDL0501]"), 2);
    EXPECT_EQ(logged("[FDL0806]"), 1);
    EXPECT_EQ(logged("3007 failed to load field key table"), 2);
    EXPECT_EQ(logged(":(E) "), 4);
    EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    EXPECT_EQ(_ffile_load(), -1);
    use({{"ONE", 1}});
    EXPECT_CALL(key_of("ONE"), 1, 0);
}

TEST_F(FieldNames, BadFiles)
{
    std::string good = fdl::file_bytes(fields_of(3)), zero = good, negative = good, huge = good;
    set_word(zero, 4, 0);
    set_word(negative, 4, -1);
    set_word(huge, 4, INT_MAX);
    std::string absent = write_definition(good) + ".gone";
    std::string zero_path = write_definition(zero);
    const struct {
        std::string path, code, text;
    } rows[] = {
        {absent, "[FDL0502]", "0010 file open error : " + absent + " [FDL0502][No such file or directory]"},
        {write_definition(""), "[FDL0503]", "0011 file read error : "},
        {write_definition(good.substr(0, 11)), "[FDL0503]", " 12 [FDL0503]"},
        {write_definition(fdl::file_bytes(fields_of(3), 0, 7777)), "[FDL0504]",
         "4408 Invalid magic number of FDL : 7777"},
        {write_definition(fdl::file_bytes(fields_of(3), 0, -8888)), "[FDL0504]",
         "4408 Invalid magic number of FDL : -8888"},
        {zero_path, "[FDL0505]", "4507 FDL table size is zero : " + zero_path},
        {write_definition(good.substr(0, 12)), "[FDL0509]", "0011 file read error : "},
        {write_definition(good.substr(0, 12 + 52)), "[FDL0509]", " 156 [FDL0509]"},
        {write_definition(good.substr(0, 12 + 3 * 52)), "[FDL0513]", "0011 file read error : "},
        {write_definition(good.substr(0, 12 + 3 * 52 + 23)), "[FDL0513]", " 24 [FDL0513]"},
    };
    int lines = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.code);
        use(row.path);
        int before = logged(row.code);
        EXPECT_CALL(key_of("FIELD_0"), 0, 0);
        EXPECT_EQ(logged(row.code), before + 1);
        EXPECT_TRUE(log.has(row.text)) << row.text << "\n" << log.text();
        EXPECT_EQ(log.lines(), lines += 2);
        EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
        EXPECT_CALL(fbget_fldname(1), nullptr, 0);  // it tries again
        EXPECT_EQ(log.lines(), lines += 2);
        fbkeynm_unload();
    }
    for (const std::string &bytes : {negative, huge}) {
        use(write_definition(bytes));
        EXPECT_CALL(key_of("FIELD_0"), 0, 0);
        EXPECT_EQ(log.lines(), lines += 2);
        EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    }
    use(write_definition(good));
    expect_all(fields_of(3));
    EXPECT_EQ(log.lines(), lines);
}

TEST_F(FieldNames, CountThatTheFileCannotHoldAllocatesNothing)
{
    for (int32_t count : {4, 1000000, 40000000, INT_MAX / 52, INT_MAX / 52 + 1, -4}) {
        std::string bytes = fdl::file_bytes(fields_of(3));
        set_word(bytes, 4, count);
        use(write_definition(bytes));
        faults::limit_allocation(4096);
        int before = logged("[FDL0509]");
        EXPECT_CALL(key_of("FIELD_0"), 0, 0);
        faults::limit_allocation(0);
        EXPECT_EQ(logged("[FDL0509]"), before + 1) << count << "\n" << log.text();
    }
    EXPECT_FALSE(log.has("0004 memory allocation error"));
}

TEST_F(FieldNames, FileShortAtEveryByte)
{
    std::string good = fdl::file_bytes(fields_of(3));
    for (size_t size = 0; size < good.size(); size++) {
        use(write_definition(good.substr(0, size)));
        EXPECT_CALL(key_of("FIELD_0"), 0, 0);
        EXPECT_EQ(_fname_fldkey_tab_loaded, 0) << size;
    }
    use(write_definition(good + "bytes behind it are not looked at"));
    expect_all(fields_of(3));
}

TEST_F(FieldNames, BadSecondFileFailsTheLoad)
{
    auto a = fields_of(30, "A_"), b = fields_of(4, "B_", 1000);
    std::string first = write_definition(fdl::file_bytes(a)), bytes = fdl::file_bytes(b);
    for (size_t size : {(size_t)0, (size_t)12, bytes.size() - 1}) {
        use(first + "," + write_definition(bytes.substr(0, size)));
        EXPECT_CALL(key_of("A_0"), 0, 0);
        EXPECT_CALL(fbget_fldname(a[0].key), nullptr, 0);
        EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    }
    use(first + ",/no/such/file");
    EXPECT_CALL(key_of("A_0"), 0, 0);
    // What is left over of these attempts doesn't lead a later search astray.
    use(first + "," + write_definition(bytes));
    expect_all(a);
    expect_all(b);
    expect_unknown();
    fbkeynm_unload();
    use(first);
    expect_all(a);
    expect_unknown();
}

TEST_F(FieldNames, DirectoryIsNoFile)
{
    use("/tmp");
    EXPECT_CALL(key_of("A"), 0, 0);
    EXPECT_EQ(logged("[FDL0801]"), 1);
    EXPECT_EQ(logged("[FDL0502]") + logged("[FDL0503]"), 1);
}

TEST_F(FieldNames, NoMemoryAtAnyPoint)
{
    auto a = fields_of(30, "A_"), b = fields_of(4, "B_", 1000);
    use(write_definition(fdl::file_bytes(a)) + "," + write_definition(fdl::file_bytes(b)));
    fbkeynm_unload();  // tables of threads are made
    std::string codes;
    for (int nth = 1;; nth++) {
        faults::fail_allocation(nth);
        stale();
        int key = key_of("B_1");
        faults::disarm_allocations();
        EXPECT_EQ(getfberror(), 0);
        if (!faults::allocation_failed()) {
            EXPECT_EQ(key, b[1].key);
            EXPECT_GT(nth, 4);
            break;
        }
        EXPECT_EQ(key, 0) << nth;
        EXPECT_EQ(_fname_fldkey_tab_loaded, 0);
    }
    for (const char *code : {"[FDL0506]", "[FDL0507]", "[FDL0510]", "[FDL0511]"})
        EXPECT_EQ(logged(code), 1) << code << "\n" << log.text();
    EXPECT_GE(logged("0004 memory allocation error : size = "), 4);
    expect_all(a);
    expect_all(b);
}

// ---- files that lie

TEST_F(FieldNames, HostileRowNumbersGiveNoName)
{
    for (int32_t hostile : {-2, -1, INT_MIN, INT_MAX, 3, 4, 1000000}) {
        SCOPED_TRACE(hostile);
        auto fields = fields_of(3);
        std::string bytes = fdl::file_bytes(fields);
        for (size_t row = 0; row < 3; row++)
            set_word(bytes, 12 + 3 * 52 + 8 * row + 4, hostile);
        use(write_definition(bytes));
        EXPECT_EQ(key_of("FIELD_1"), fields[1].key);
        for (const auto &one : fields)
            EXPECT_EQ(fbget_fldname(one.key), nullptr);
        fbkeynm_unload();
    }
}

TEST_F(FieldNames, RowNumbersOfASecondFileStayInside)
{
    auto a = fields_of(3, "A_"), b = fields_of(3, "B_", 1000);
    for (int32_t hostile : {INT_MAX, INT_MAX - 2, INT_MIN, -2, 3, 100}) {
        std::string bytes = fdl::file_bytes(b);
        for (size_t row = 0; row < 3; row++)
            set_word(bytes, 12 + 3 * 52 + 8 * row + 4, hostile);
        use(write_definition(fdl::file_bytes(a)) + "," + write_definition(bytes));
        expect_all(a);
        for (const auto &one : b) {
            char *name = fbget_fldname(one.key);
            if (name != nullptr) {
                EXPECT_LT(strlen(name), 48u);
            }
        }
        fbkeynm_unload();
    }
}

TEST_F(FieldNames, NamesWithoutAnEndAreCut)
{
    auto fields = fields_of(3);
    std::string bytes = fdl::file_bytes(fields);
    for (size_t row = 0; row < 3; row++)
        bytes.replace(12 + 52 * row, 48, std::string(48, 'x'));
    use(write_definition(bytes));
    EXPECT_EQ(key_of("FIELD_0"), 0);
    EXPECT_EQ(key_of(std::string(48, 'x')), 0);
    EXPECT_EQ(key_of(std::string(100, 'x')), 0);
    for (const auto &one : fields) {
        char *name = fbget_fldname(one.key);
        if (name != nullptr) {
            EXPECT_LT(strlen(name), 48u);
        }
    }
}

TEST_F(FieldNames, FullTablesEndTheProbing)
{
    // Every row is taken by another name: one walk, no more.
    auto fields = fields_of(512);
    use(fields);
    expect_unknown("FIELD_512", 77);
    expect_unknown("", 0);
}

// ---- threads

TEST_F(FieldNames, TwoThreadsAtFirstUse)
{
    auto fields = fields_of(300);
    for (int round = 0; round < 20; round++) {
        use(fields);
        std::vector<std::thread> threads;
        std::atomic<int> wrong{0};
        Meeting all(4);
        for (int t = 0; t < 4; t++)
            threads.emplace_back([&, t] {
                all.meet();
                for (size_t i = (size_t)t; i < fields.size(); i += 4) {
                    wrong += key_of(fields[i].name) != fields[i].key;
                    wrong += name_of(fields[i].key) != fields[i].name;
                }
            });
        for (std::thread &thread : threads)
            thread.join();
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(_fname_count, 300);
        fbkeynm_unload();
    }
    EXPECT_EQ(log.text(), "");
}
