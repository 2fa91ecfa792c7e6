// Struct definitions that lie. A file is trusted no further than its records reach: whatever its numbers say,
// nothing outside a record is read or written, and no call runs without an end.
#include "buffers/dencode.h"
#include "buffers/fieldbytes.h"
#include "buffers/structs.h"
#include "runtime/mthr.h"
#include "support/fixtures.h"
#include "vorn/buffers.h"

#include <limits.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t MOST = 1 << 20;  // larger records aren't tried out

struct HostileStructs : testing::Test {
    LogFile log;

    HostileStructs()
    {
        for (const char *name : {"SDLFILE64", "SDLFILE", "FDLFILE", "VORN_STRING_NULL"})
            unsetenv(name);
        faults::limit_allocation(MOST * 16);
    }
};

// One record each way, in blocks that end with it; what stands around them must stay as it is.
void try_records(const char *name)
{
    int host = 0, net = 0;
    if (_get_host_nw_stsize((char *)name, &host, &net) < 0)
        return;
    if (host > 0 && (size_t)host <= MOST) {
        Message out(BUF_STRUCT, std::string((size_t)host, '\1'), 0, name);
        int length = 0;
        char *block = _hton_data_sdl(out, &length);
        if (block != nullptr) {
            EXPECT_GE(length, 0);
            EXPECT_EQ(length, net);
            std::string all((size_t)length, '\0');
            memcpy(&all[0], block + HEADER_SIZE, all.size());
        }
        free(block);
        EXPECT_EQ(out.text((size_t)host), std::string((size_t)host, '\1'));
    }
    if (host > 0 && (size_t)host <= MOST && net > 0 && (size_t)net <= MOST) {
        std::string data((size_t)net * 2, '\2');
        int length = 0;
        std::vector<char> room((size_t)host * 2);
        Message in(BUF_STRUCT, data, 0, name);
        _ntoh_data_sdl(in, in.data(), room.data(), &length);
        Message same(BUF_STRUCT, data, (size_t)host * 2, name);
        _ntoh_data_sdl(same, same.data(), same.data(), &length);
    }
}

// Loads the definitions in a process of their own and tries all of them out. Anything that isn't a clean end
// is a failure: a signal, a report of the memory checker, more than some seconds.
void expect_safe(const std::string &bytes, const std::vector<const char *> &names)
{
    std::string path = write_definition(bytes);
    pid_t child = fork();
    if (child == 0) {
        alarm(100);
        setenv("SDLFILE", path.c_str(), 1);
        if (_sdlfile_load() == 1)
            for (const char *name : names) {
                char *data = tpalloc((char *)"STRUCT", (char *)name, 0);
                if (data != nullptr)
                    tpfree(data);
                try_records(name);
            }
        _exit(testing::Test::HasFailure() ? 79 : 77);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 77);
}

const int32_t odd_numbers[] = {-1,  0,     1,       2,          3,          5,          40,      89,
                               100, 65536, INT_MAX, 0x40000000, 0x20000001, 0x7ffffff8, INT_MIN, -4096};

}  // namespace

TEST_F(HostileStructs, AnyWordOfAStructRow)
{
    const std::string good = sdl::file_bytes(definitions());
    for (size_t row : {0, 1})
        for (size_t offset : {32, 36, 48, 52, 56, 60})
            for (int32_t number : odd_numbers) {
                SCOPED_TRACE("row " + std::to_string(row) + " offset " + std::to_string(offset) + ": " +
                             std::to_string(number));
                std::string bytes = good;
                sdl::set_word(bytes, sdl::struct_word(row, offset), number);
                expect_safe(bytes, {"item", "person", "pair"});
            }
}

TEST_F(HostileStructs, AnyWordOfAMemberRow)
{
    const std::string good = sdl::file_bytes(definitions());
    // Of a long, a short array, a string, a double and the nested records.
    for (size_t row : {1, 3, 7, 8, 10})
        for (size_t offset : {36, 72, 76, 80, 84, 88})
            for (int32_t number : odd_numbers) {
                SCOPED_TRACE("row " + std::to_string(row) + " offset " + std::to_string(offset) + ": " +
                             std::to_string(number));
                std::string bytes = good;
                sdl::set_word(bytes, sdl::member_word(3, row, offset), number);
                expect_safe(bytes, {"item", "person", "pair"});
            }
}

TEST_F(HostileStructs, NameWithoutAnEnd)
{
    std::string bytes = sdl::file_bytes(definitions());
    for (size_t row = 0; row < 3; row++)
        for (size_t i = 0; i < 32; i++)
            bytes[sdl::struct_word(row, 0) + i] = 'n';
    expect_safe(bytes, {"nnnnnnnnnnnnnnnn", "n"});
}

TEST_F(HostileStructs, StructInItself)
{
    for (int32_t count : {1, 2, 1000, INT_MAX})
        for (int64_t size : {0, 1, 8, 4096}) {
            SCOPED_TRACE(std::to_string(count) + " of " + std::to_string(size));
            sdl::record self = {"self", {}, size, size, 0};
            self.members.push_back({.name = "i", .type = sdl::CHAR});
            self.members.push_back({.name = "me", .type = sdl::NESTED, .nested = 0, .count = count});
            expect_safe(sdl::file_bytes({self}), {"self"});
        }
}

TEST_F(HostileStructs, StructsInEachOther)
{
    for (int64_t size : {0, 1, 8, 4096}) {
        SCOPED_TRACE(size);
        sdl::record a = {"a", {}, size, size, 0}, b = {"b", {}, size, size, 0};
        a.members.push_back({.name = "b", .type = sdl::NESTED, .nested = 1, .count = 2});
        b.members.push_back({.name = "a", .type = sdl::NESTED, .nested = 0, .count = 2});
        expect_safe(sdl::file_bytes({a, b}), {"a", "b"});
    }
}

// Each of many structs holds two of the one before it, and all have one size, so that the numbers of records
// double and the room doesn't.
TEST_F(HostileStructs, RecordsThatDoubleWithoutRoom)
{
    for (int64_t size : {0, 1, 4}) {
        SCOPED_TRACE(size);
        std::vector<sdl::record> chain = {{"s0", {{.name = "i", .type = sdl::CHAR}}, size, size, 0}};
        for (int i = 1; i < 60; i++) {
            sdl::record next = {"s" + std::to_string(i), {}, size, size, 0};
            for (int half = 0; half < 2; half++)
                next.members.push_back(
                    {.name = "h" + std::to_string(half), .type = sdl::NESTED, .nested = i - 1, .count = 1});
            chain.push_back(next);
        }
        expect_safe(sdl::file_bytes(chain), {"s59", "s20", "s0"});
    }
}

TEST_F(HostileStructs, LongChainOfStructs)
{
    std::vector<sdl::record> chain = {{"s0", {{.name = "i", .type = sdl::INT}}, 4, 4, 0}};
    for (int i = 1; i < 20000; i++)
        chain.push_back(
            {"s" + std::to_string(i), {{.name = "n", .type = sdl::NESTED, .nested = i - 1}}, 4, 4, 0});
    expect_safe(sdl::file_bytes(chain), {"s19999", "s10", "s0"});
}

TEST_F(HostileStructs, ManyElementsInASmallRecord)
{
    for (int32_t type = 1; type <= 9; type++)
        for (int32_t count : {2, 100, 65536, 0x20000000, INT_MAX, -1, INT_MIN}) {
            SCOPED_TRACE(std::to_string(count) + " of type " + std::to_string(type));
            sdl::record many = {"many", {}, 8, 8, 0};
            many.members.push_back({.name = "m", .type = type, .nested = 1, .count = count});
            expect_safe(sdl::file_bytes({many, pair_definition()}), {"many"});
        }
}

TEST_F(HostileStructs, SecondFileNestsOutOfTheTable)
{
    for (int32_t nested : {1, 2, 3, -1, INT_MAX}) {
        SCOPED_TRACE(nested);
        sdl::record outer = {"outer", {}, 16, 8, 0};
        outer.members.push_back({.name = "n", .type = sdl::NESTED, .nested = nested});
        std::string first = write_definition(sdl::file_bytes({item_definition()}));
        std::string second = write_definition(sdl::file_bytes({outer}));
        pid_t child = fork();
        if (child == 0) {
            alarm(100);
            setenv("SDLFILE", (first + "," + second).c_str(), 1);
            if (_sdlfile_load() == 1)
                try_records("outer");
            _exit(testing::Test::HasFailure() ? 79 : 77);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 77) << status;
    }
}

// A struct is known as long as all of its members lie in both of its records, to the last byte; otherwise its
// name is unknown, and the log tells why. The other structs of the file stand.
TEST_F(HostileStructs, StructWhoseMembersDontFitIsUnknown)
{
    const struct {
        sdl::member member;
        bool known;
    } cases[] = {
        {{.name = "x", .type = sdl::CHAR, .count = 24}, true},
        {{.name = "x", .type = sdl::CHAR, .count = 25}, false},
        {{.name = "x", .type = sdl::CARRAY, .count = 4, .host_offset = 20, .wire_offset = 20}, true},
        {{.name = "x", .type = sdl::CARRAY, .count = 4, .host_offset = 21, .wire_offset = 0}, false},
        {{.name = "x", .type = sdl::CARRAY, .count = 4, .host_offset = 0, .wire_offset = 21}, false},
        {{.name = "x", .type = sdl::SHORT, .host_offset = 22, .wire_offset = 22}, true},
        {{.name = "x", .type = sdl::SHORT, .host_offset = 23, .wire_offset = 22}, false},
        {{.name = "x", .type = sdl::INT, .count = 6}, true},
        {{.name = "x", .type = sdl::INT, .count = 7}, false},
        {{.name = "x", .type = sdl::LONG, .count = 3, .wire_offset = 12}, true},
        {{.name = "x", .type = sdl::LONG, .count = 3, .wire_offset = 13}, false},
        {{.name = "x", .type = sdl::LONG, .count = 4}, false},
        {{.name = "x", .type = sdl::DOUBLE, .count = 3}, true},
        {{.name = "x", .type = sdl::DOUBLE, .count = 1, .host_offset = -1}, false},
        {{.name = "x", .type = sdl::DOUBLE, .count = 1, .wire_offset = -1}, false},
        {{.name = "x", .type = sdl::INT, .count = -1}, false},
        {{.name = "x", .type = sdl::NESTED, .nested = 1, .count = 3}, true},
        {{.name = "x", .type = sdl::NESTED, .nested = 1, .count = 4}, false},
        {{.name = "x", .type = sdl::NESTED, .nested = 1, .count = 2, .host_offset = 8}, true},
        {{.name = "x", .type = sdl::NESTED, .nested = 1, .count = 2, .host_offset = 9}, false},
        {{.name = "x", .type = sdl::NESTED, .nested = 2}, false},
        {{.name = "x", .type = sdl::NESTED, .nested = -1}, false},
        {{.name = "x", .type = sdl::NESTED, .nested = 0}, false},
        {{.name = "x", .type = sdl::INT, .nested = 99, .count = 0, .element = -5}, true},
    };
    int number = 0;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        std::string path =
            write_definition(sdl::file_bytes({{"tried", {row.member}, 24, 24, 0}, pair_definition()}));
        pid_t child = fork();
        if (child == 0) {
            setenv("SDLFILE", path.c_str(), 1);
            EXPECT_EQ(_sdlfile_load(), 1);
            EXPECT_EQ(_get_host_stsize("tried"), row.known ? 24 : -1);
            EXPECT_EQ(_get_host_stsize("pair"), 8);
            EXPECT_EQ(log.has("(E) CLI 0209 internal error : members of struct tried don't fit [CLI0126]"),
                      !row.known)
                << log.text();
            _exit(HasFailure() ? 79 : 77);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 77) << status;
    }
}

TEST_F(HostileStructs, StructWhoseMembersAreNoRowsIsUnknown)
{
    for (int32_t last : {0, 1, 2, 3, 100}) {
        SCOPED_TRACE(last);
        std::string bytes = sdl::file_bytes({pair_definition()});
        sdl::set_word(bytes, sdl::struct_word(0, 36), last);
        std::string path = write_definition(bytes);
        pid_t child = fork();
        if (child == 0) {
            setenv("SDLFILE", path.c_str(), 1);
            EXPECT_EQ(_sdlfile_load(), 1);
            EXPECT_EQ(_get_host_stsize("pair"), last < 2 ? 8 : -1);
            _exit(HasFailure() ? 79 : 77);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 77) << status;
    }
}

// Single bytes of a good file changed at random, from a fixed seed.
TEST_F(HostileStructs, BytesChangedAtRandom)
{
    const std::string good = sdl::file_bytes(definitions());
    uint32_t seed = 12345;
    auto random = [&seed] { return seed = seed * 1664525 + 1013904223, seed >> 8; };
    for (int round = 0; round < 100; round++) {
        SCOPED_TRACE(round);
        std::string bytes = good;
        for (uint32_t changes = 1 + random() % 6; changes > 0; changes--)
            bytes[12 + random() % (bytes.size() - 12)] = (char)random();
        expect_safe(bytes, {"item", "person", "pair"});
    }
}
