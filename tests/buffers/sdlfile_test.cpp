// Struct definition files: where they are looked for, what is read of them, and what stops the reading.
#include "buffers/structs.h"
#include "buffers/tbuffer.h"
#include "runtime/mthr.h"
#include "support/fixtures.h"
#include "support/meeting.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "vorn/session.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>

namespace {

std::string file_of(const std::vector<sdl::record> &records)
{
    return write_definition(sdl::file_bytes(records));
}

std::string missing_file()
{
    return testing::TempDir() + "no-such-definition";
}

int open_files()
{
    int count = 0;
    DIR *open = opendir("/proc/self/fd");
    while (readdir(open) != nullptr)
        count++;
    closedir(open);
    return count;
}

sdl::record small(const std::string &name, int members = 1)
{
    sdl::record made = {name, {}, 4 * members, 4 * members, 0};
    for (int i = 0; i < members; i++)
        made.members.push_back(
            {.name = name + std::to_string(i), .host_offset = 4 * i, .wire_offset = 4 * i});
    return made;
}

int32_t row_word(int row, int offset)
{
    int32_t word;
    memcpy(&word, (const char *)&_sdl_table[row] + offset, sizeof word);
    return word;
}

int32_t first_member(int row)
{
    return row_word(row, 32);
}

int32_t last_member(int row)
{
    return row_word(row, 36);
}

struct DefinitionFile : testing::Test {
    LogFile log;

    DefinitionFile()
    {
        for (const char *name : {"SDLFILE64", "SDLFILE", "FDLFILE", "VORN_STRING_NULL"})
            unsetenv(name);
    }

    int load(const std::string &list)
    {
        setenv("SDLFILE", list.c_str(), 1);
        return _sdlfile_load();
    }
    bool loaded() const { return _sdlfile_loadsw != 0; }
    bool knows(const char *name) const { return _get_host_stsize(name) >= 0; }

    // A load that failed leaves nothing locked or open, and the next one is made as if there had been none.
    void expect_failed(int result)
    {
        EXPECT_EQ(result, -1);
        EXPECT_FALSE(loaded());
        ASSERT_EQ(pthread_mutex_trylock(&_sdlfile_mutex), 0);
        pthread_mutex_unlock(&_sdlfile_mutex);
    }
};

}  // namespace

// ---- which files

TEST_F(DefinitionFile, NoVariableLoadsNothingAndIsAskedAgain)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    EXPECT_FALSE(loaded());
    EXPECT_EQ(_sdlfile_load(), 1);
    EXPECT_EQ(_sdl_table_size, 0);
    EXPECT_EQ(_sdl_field_table_size, 0);
    char *text = tpalloc((char *)"STRING", nullptr, 0);
    EXPECT_NE(text, nullptr);
    tpfree(text);
    EXPECT_EQ(tpalloc((char *)"VIEW", (char *)"pair", 0), nullptr);
    EXPECT_EQ(get_tperrno(), TPENOENT);

    setenv("SDLFILE", file_of(definitions()).c_str(), 1);
    char *record = tpalloc((char *)"VIEW", (char *)"pair", 0);
    EXPECT_NE(record, nullptr);
    EXPECT_TRUE(loaded());
    tpfree(record);
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(DefinitionFile, RowsStandInMemoryAsInTheFile)
{
    std::string bytes = sdl::file_bytes(definitions());
    EXPECT_EQ(load(write_definition(bytes)), 1);
    EXPECT_TRUE(loaded());
    ASSERT_EQ(_sdl_table_size, 3);
    ASSERT_EQ(_sdl_field_table_size, 2 + 9 + 2);
    static_assert(sizeof *_sdl_table == 64 && sizeof *_sdl_field_table == 92);
    EXPECT_EQ(std::string((const char *)_sdl_table, 3 * 64), bytes.substr(12, 3 * 64));
    EXPECT_EQ(std::string((const char *)_sdl_field_table, 13 * 92), bytes.substr(12 + 3 * 64));
}

TEST_F(DefinitionFile, SecondLoadDoesNothing)
{
    EXPECT_EQ(load(file_of({small("first")})), 1);
    EXPECT_EQ(_sdlfile_load(), 0);
    EXPECT_EQ(load(file_of({small("second")})), 0);
    EXPECT_EQ(load(missing_file()), 0);
    unsetenv("SDLFILE");
    EXPECT_EQ(_sdlfile_load(), 0);
    EXPECT_TRUE(knows("first"));
    EXPECT_FALSE(knows("second"));
    EXPECT_EQ(_sdl_table_size, 1);
}

TEST_F(DefinitionFile, WideVariableGoesBeforeTheOther)
{
    setenv("SDLFILE64", file_of({small("wide")}).c_str(), 1);
    EXPECT_EQ(load(missing_file()), 1);
    EXPECT_TRUE(knows("wide"));
}

TEST_F(DefinitionFile, OtherVariableDoesntStandInForAWideOneThatFails)
{
    setenv("SDLFILE64", missing_file().c_str(), 1);
    expect_failed(load(file_of({small("narrow")})));
    EXPECT_FALSE(knows("narrow"));
    unsetenv("SDLFILE64");
    EXPECT_EQ(_sdlfile_load(), 1);
    EXPECT_TRUE(knows("narrow"));
}

TEST_F(DefinitionFile, ListWithoutAPathIsALoadOfNothing)
{
    for (const char *list : {"", ",", ",,,"}) {
        SCOPED_TRACE(list);
        _sdlfile_loadsw = 0;
        EXPECT_EQ(load(list), 1);
        EXPECT_TRUE(loaded());
        EXPECT_EQ(_sdl_table_size, 0);
        EXPECT_FALSE(knows("pair"));
    }
    // An empty value counts as set: the other variable isn't asked.
    _sdlfile_loadsw = 0;
    setenv("SDLFILE64", "", 1);
    EXPECT_EQ(load(file_of({small("narrow")})), 1);
    EXPECT_FALSE(knows("narrow"));
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(DefinitionFile, EmptyItemsOfTheListVanish)
{
    EXPECT_EQ(load(",," + file_of({small("one")}) + ",,," + file_of({small("two")}) + ","), 1);
    EXPECT_TRUE(knows("one"));
    EXPECT_TRUE(knows("two"));
    EXPECT_EQ(_sdl_table_size, 2);
}

TEST_F(DefinitionFile, LongListIsReadWhole)
{
    std::string first = file_of({small("one")}), second = file_of({small("two")});
    std::string slashes(400, '/');
    EXPECT_EQ(load(slashes + first + "," + slashes + second), 1);
    EXPECT_TRUE(knows("one"));
    EXPECT_TRUE(knows("two"));
}

TEST_F(DefinitionFile, TakesTwoHundredFiftySixPaths)
{
    std::string path = file_of({small("one")}), list;
    for (int i = 0; i < 255; i++)
        list += path + ",";
    expect_failed(load(list + missing_file()));
    _sdl_table_size = _sdl_field_table_size = 0;
    EXPECT_EQ(load(list + path + "," + missing_file()), 1);
    EXPECT_EQ(_sdl_table_size, 256);
    EXPECT_EQ(_sdl_field_table_size, 256);
    EXPECT_EQ(first_member(255), 255);
    EXPECT_EQ(last_member(255), 255);
}

// ---- several files

TEST_F(DefinitionFile, MemberNumbersOfLaterFilesFollowThePreviousOnes)
{
    EXPECT_EQ(load(file_of({small("a", 2), small("b", 3)}) + "," + file_of({small("c", 4), small("d", 1)}) +
                   "," + file_of({small("e", 2)})),
              1);
    const struct {
        const char *name;
        int first, last;
    } rows[] = {{"a", 0, 1}, {"b", 2, 4}, {"c", 5, 8}, {"d", 9, 9}, {"e", 10, 11}};
    ASSERT_EQ(_sdl_table_size, 5);
    ASSERT_EQ(_sdl_field_table_size, 12);
    for (int i = 0; i < 5; i++) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_STREQ((const char *)&_sdl_table[i], rows[i].name);
        EXPECT_EQ(first_member(i), rows[i].first);
        EXPECT_EQ(last_member(i), rows[i].last);
        EXPECT_EQ(std::string((const char *)&_sdl_field_table[rows[i].first]),
                  std::string(rows[i].name) + "0");
    }
}

// It is the previous row that counts, and not the number of members that its file had.
TEST_F(DefinitionFile, MemberNumbersFollowThePreviousRowThoughMoreMembersWereRead)
{
    sdl::record all_at_zero = small("a", 4);
    for (sdl::member &member : all_at_zero.members)
        member.host_offset = member.wire_offset = 0;
    std::string first = sdl::file_bytes({all_at_zero});
    std::string second = sdl::file_bytes({small("b", 2), small("c")});
    sdl::set_word(first, sdl::struct_word(0, 36), 1);    // two members of the four
    sdl::set_word(second, sdl::struct_word(0, 32), 50);  // from 50 to 51: two members
    sdl::set_word(second, sdl::struct_word(0, 36), 51);
    EXPECT_EQ(load(write_definition(first) + "," + write_definition(second)), 1);
    ASSERT_EQ(_sdl_table_size, 3);
    EXPECT_EQ(_sdl_field_table_size, 7);
    EXPECT_EQ(first_member(1), 2);
    EXPECT_EQ(last_member(1), 3);
    EXPECT_EQ(first_member(2), 4);
    EXPECT_EQ(last_member(2), 4);
}

TEST_F(DefinitionFile, NestedStructOfALaterFileIsARowOfTheFirst)
{
    sdl::record outer = {"outer", {}, 16, ITEM_WIRE, 0};
    outer.members.push_back({.name = "inner", .type = sdl::NESTED, .nested = 0});
    EXPECT_EQ(load(file_of({item_definition()}) + "," + file_of({outer, small("other")})), 1);
    item_record from = {0x0102, 0x03040506};
    char to[ITEM_WIRE];
    _sdl_encode(1, (char *)&from, to);
    EXPECT_EQ(std::string(to, ITEM_WIRE), "\1\2\3\4\5\6");
}

TEST_F(DefinitionFile, FileWithoutStructsBeforeAnotherDoesNoHarm)
{
    EXPECT_EQ(load(file_of({}) + "," + file_of({small("one")})), 1);
    EXPECT_TRUE(knows("one"));
    char *record = tpalloc((char *)"STRUCT", (char *)"one", 0);
    EXPECT_NE(record, nullptr);
    tpfree(record);
    EXPECT_EQ(first_member(0), 0);
    EXPECT_EQ(last_member(0), 0);
}

TEST_F(DefinitionFile, FirstOfTwoStructsOfOneNameIsTheOneThatIsFound)
{
    EXPECT_EQ(load(file_of({small("twin", 1)}) + "," + file_of({small("twin", 3)})), 1);
    EXPECT_EQ(_get_host_stsize("twin"), 4);
}

// ---- what stops the reading

TEST_F(DefinitionFile, MissingFileIsToldByItsPath)
{
    expect_failed(load(missing_file()));
    EXPECT_TRUE(log.has("(E) CLI 0010 file open error : " + missing_file() + " [CLI0116]")) << log.text();
    EXPECT_EQ(log.lines(), 1);
}

TEST_F(DefinitionFile, AnotherMagicIsRefused)
{
    for (int32_t magic : {0, 8888, 7776, 7778, -7777, 0x611e0000, INT_MAX}) {
        SCOPED_TRACE(magic);
        int lines = log.lines();
        expect_failed(load(write_definition(sdl::file_bytes(definitions(), magic))));
        EXPECT_EQ(log.lines(), lines + 1);
        EXPECT_FALSE(knows("pair"));
    }
    EXPECT_TRUE(log.has("(E) CLI 3005 Invalid magic number of SDL file [CLI0118]")) << log.text();
    EXPECT_EQ(load(file_of(definitions())), 1);
    EXPECT_TRUE(knows("pair"));
}

// The file is cut at each byte. Whatever was read before is gone, and a whole file loads afterwards.
TEST_F(DefinitionFile, ShortAtAnyByteIsAReadError)
{
    std::string bytes = sdl::file_bytes({small("one", 2), small("two", 1)});
    const size_t members = 12 + 2 * 64;
    ASSERT_EQ(bytes.size(), members + 3 * 92);
    std::string path = write_definition("");
    for (size_t length = 0; length < bytes.size(); length++) {
        SCOPED_TRACE(length);
        int fd = open(path.c_str(), O_WRONLY | O_TRUNC);
        ASSERT_EQ(write(fd, bytes.data(), length), (ssize_t)length);
        close(fd);
        std::string before = log.text();
        expect_failed(load(path));
        std::string line = log.text().substr(before.size());
        if (length < 12) {
            EXPECT_NE(line.find("(E) CLI 0011 file read error : "), std::string::npos) << line;
            EXPECT_NE(line.find(" 12 [CLI0117]"), std::string::npos) << line;
        } else if (length < members) {
            EXPECT_NE(line.find("(E) CLI 0011 file read error : "), std::string::npos) << line;
            EXPECT_NE(line.find("[CLI0122]"), std::string::npos) << line;
        } else {
            EXPECT_EQ(line, "");
        }
        EXPECT_FALSE(knows("one"));
    }
    EXPECT_EQ(load(write_definition(bytes)), 1);
    EXPECT_TRUE(knows("two"));
    EXPECT_EQ(_sdl_table_size, 2);
}

TEST_F(DefinitionFile, ShortFileWithAnotherMagicFailsByWhatComesFirst)
{
    expect_failed(load(write_definition(sdl::file_bytes(definitions(), 1).substr(0, 11))));
    EXPECT_TRUE(log.has("[CLI0117]"));
    EXPECT_FALSE(log.has("[CLI0118]"));
    expect_failed(load(write_definition(sdl::file_bytes(definitions(), 1).substr(0, 12))));
    EXPECT_TRUE(log.has("[CLI0118]"));
    EXPECT_FALSE(log.has("[CLI0122]"));
}

TEST_F(DefinitionFile, FailuresLeaveNoFileOpen)
{
    std::string bytes = sdl::file_bytes(definitions());
    std::string good = write_definition(bytes);
    load(missing_file());  // opens the log
    int before = open_files();
    for (const std::string &bad :
         {std::string("x"), bytes.substr(0, 100), bytes.substr(0, bytes.size() - 1), std::string(12, 'm')}) {
        expect_failed(load(write_definition(bad)));
        expect_failed(load(good + "," + write_definition(bad)));
    }
    expect_failed(load(good + "," + missing_file()));
    EXPECT_EQ(open_files(), before);
    EXPECT_EQ(load(good), 1);
    EXPECT_EQ(open_files(), before);
}

// The rows of the first file are released, its count stands; nothing is found through it, and a load that
// goes well afterwards gives whole definitions.
TEST_F(DefinitionFile, FailureOfALaterFileReleasesTheEarlierOnes)
{
    std::string bytes = sdl::file_bytes(definitions());
    const std::string bad[] = {
        missing_file(), write_definition("short"), write_definition(sdl::file_bytes(definitions(), 7)),
        write_definition(bytes.substr(0, 12 + 64)), write_definition(bytes.substr(0, bytes.size() - 92))};
    const std::string first = file_of({small("one", 2), small("two", 1)}), good = file_of(definitions());
    for (const std::string &path : bad) {
        SCOPED_TRACE(path);
        pid_t child = fork();
        if (child == 0) {
            expect_failed(load(first + "," + path));
            EXPECT_EQ(_sdl_table_size, 2);
            EXPECT_EQ(_sdl_field_table_size, 3);
            EXPECT_FALSE(knows("one"));
            EXPECT_EQ(tpalloc((char *)"VIEW", (char *)"one", 0), nullptr);
            EXPECT_EQ(load(good), 1);
            char *record = tpalloc((char *)"VIEW", (char *)"person", 0);
            EXPECT_NE(record, nullptr);
            tpfree(record);
            EXPECT_EQ(_get_host_stsize("person"), (int)sizeof(person_record));
            _exit(HasFailure() ? 1 : 0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
}

TEST_F(DefinitionFile, AllocationOfBuffersGoesOnAfterAFailure)
{
    setenv("SDLFILE", missing_file().c_str(), 1);
    char *text = tpalloc((char *)"STRING", nullptr, 0);
    EXPECT_NE(text, nullptr);
    EXPECT_EQ(get_tperrno(), 0);
    tpfree(text);
    EXPECT_EQ(tpalloc((char *)"X_COMMON", (char *)"pair", 0), nullptr);
    EXPECT_EQ(get_tperrno(), TPENOENT);
    setenv("SDLFILE", file_of(definitions()).c_str(), 1);
    char *record = tpalloc((char *)"X_COMMON", (char *)"pair", 0);
    EXPECT_NE(record, nullptr);
    tpfree(record);
}

// ---- hostile counts: the file is too short for them, whatever memory there is

TEST_F(DefinitionFile, CountsThatTheFileDoesntHoldAreRefused)
{
    std::string good = sdl::file_bytes({small("one")});
    faults::limit_allocation(1 << 28);
    for (size_t offset : {4, 8})
        for (int32_t count : {-1, INT_MIN, INT_MAX, 2, 1000, 0x04000001, 0x40000000}) {
            SCOPED_TRACE(std::to_string(offset) + ": " + std::to_string(count));
            std::string bytes = good;
            sdl::set_word(bytes, offset, count);
            std::string path = write_definition(bytes);
            pid_t child = fork();
            if (child == 0) {
                int result = load(path);
                _exit(result == -1 && !loaded() && !knows("one") ? 77 : 78);
            }
            int status = 0;
            waitpid(child, &status, 0);
            EXPECT_TRUE(WIFEXITED(status));
            EXPECT_EQ(WEXITSTATUS(status), 77);
        }
}

// ---- without memory

// Each allocation of a load fails once. It is fatal: the process ends with 1, and says which it was.
TEST_F(DefinitionFile, MemoryThatFailsEndsTheProcess)
{
    std::string list = file_of({small("one", 2)}) + "," + file_of({small("two", 3)});
    unsetenv("VORN_DEBUG");
    std::set<std::string> codes;
    int failures = 0;
    for (int nth = 1;; nth++) {
        SCOPED_TRACE(nth);
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        pid_t child = fork();
        if (child == 0) {
            dup2(ends[1], 2);
            faults::fail_allocation(nth);
            int result = load(list);
            _exit(faults::allocation_failed() ? 3 : result == 1 ? 2 : 4);
        }
        close(ends[1]);
        std::string text;
        char piece[512];
        for (ssize_t got; (got = read(ends[0], piece, sizeof piece)) > 0;)
            text.append(piece, (size_t)got);
        close(ends[0]);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == 2)
            break;
        ASSERT_EQ(WEXITSTATUS(status), 1) << text;
        failures++;
        size_t code = text.find("[CLI01");
        ASSERT_NE(code, std::string::npos) << text;
        codes.insert(text.substr(code + 1, 7));
        bool again =
            text.find("[CLI0120]") != std::string::npos || text.find("[CLI0124]") != std::string::npos;
        std::string wanted = again ? "(F) CLI 0006 memory reallocation error : size = "
                                   : "(F) CLI 0005 memory allocation error : size = ";
        EXPECT_NE(text.find(wanted), std::string::npos) << text;
    }
    EXPECT_GE(failures, 8);
    EXPECT_EQ(codes,
              (std::set<std::string>{"CLI0119", "CLI0120", "CLI0121", "CLI0123", "CLI0124", "CLI0125"}));
}

// ---- who loads, and when

TEST_F(DefinitionFile, OneOfManyThreadsLoads)
{
    setenv("SDLFILE", file_of(definitions()).c_str(), 1);
    std::atomic<int> loads{0}, others{0};
    Meeting all(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] {
            all.meet();
            int result = _sdlfile_load();
            (result == 1 ? loads : others)++;
            EXPECT_TRUE(result == 0 || result == 1);
            EXPECT_EQ(_get_host_stsize("pair"), 8);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(loads, 1);
    EXPECT_EQ(others, 7);
    EXPECT_EQ(_sdl_table_size, 3);
}

using DefinitionFileOfASession = SessionTest;

TEST_F(DefinitionFileOfASession, StartReadsIt)
{
    setenv("SDLFILE", file_of(definitions()).c_str(), 1);
    ASSERT_TRUE(start());
    EXPECT_NE(_sdlfile_loadsw, 0);
    EXPECT_EQ(_get_host_stsize("pair"), 8);
}

TEST_F(DefinitionFileOfASession, StartGoesOnWithoutIt)
{
    setenv("SDLFILE", missing_file().c_str(), 1);
    ASSERT_TRUE(start());
    EXPECT_EQ(_sdlfile_loadsw, 0);
    EXPECT_TRUE(log.has("[CLI0116]"));
}
