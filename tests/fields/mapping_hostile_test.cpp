// Struct definitions that lie, in the calls that map records: whatever counts, element sizes and null texts a
// file has, nothing outside a record is read or written.
#include "fields/values.h"

#include "support/fixtures.h"
#include "support/sdlfile.h"
#include "vorn/structs.h"

#include <limits.h>

#include <memory>

using namespace fv;

namespace {

constexpr size_t SIZE = 64;  // of every record here
const char PATTERN = '\x5a';

// One struct for each combination, named by its number.
std::vector<sdl::record> odd_structs(int key_type)
{
    const int32_t counts[] = {1, 8, 12, 63, 64, 65, 0, -1, INT_MAX};
    const int32_t elements[] = {0, 1, 3, 8, 63, 64, 65, -1, INT_MIN, INT_MAX};
    std::vector<sdl::record> all;
    for (int32_t type = 0; type <= 10; type++)
        for (int32_t count : counts)
            for (int32_t element : elements)
                for (int32_t offset : {0, 1, 3, 63}) {
                    sdl::member member;
                    member.name = "member";
                    member.key = key_of(key_type != 0 ? key_type : type, 1);
                    member.type = type;
                    member.null = "1234567890123456789012345678901";  // all the room that a text has
                    member.count = count;
                    member.element = element;
                    member.host_offset = offset;
                    all.push_back({"s" + std::to_string(all.size()), {member}, SIZE, SIZE, 0});
                }
    return all;
}

// All that can be done with a record of the struct. `record` has SIZE bytes.
void use_record(FBUF *fbuf, char *record, char *name)
{
    fbftos(fbuf, record, name);
    Buffer empty;
    fbftos(empty, record, name);
    memset(record, PATTERN, SIZE);  // no NUL anywhere
    for (int mode = FB_CONCAT; mode <= FB_UPDATE; mode++) {
        Buffer target(1, 4096);
        EXPECT_EQ(fbstof(target, record, mode, name), 1);
    }
    char member[] = "member";
    for (int occurrence : {INT_MIN, -65, -1, 0, 1, 7, 8, 15, 16, 31, 32, 63, 64, 65, 1000, INT_MAX}) {
        int result = fbsnull(record, member, occurrence, name);
        EXPECT_GE(result, -1);
        EXPECT_LE(result, 1);
    }
    fbstinit(record, name);
    fbstelinit(record, member, name);
    fbftos(fbuf, record, name);
}

struct OddMembers : testing::Test {
    LogFile log;

    // Loads the structs and uses them all, in a block that ends with the record and in one with a pattern
    // around it.
    void use_all(int key_type)
    {
        std::vector<sdl::record> structs = odd_structs(key_type);
        std::string path = write_definition(sdl::file_bytes(structs));
        unsetenv("SDLFILE");
        setenv("SDLFILE64", path.c_str(), 1);
        Buffer buffer(100, 2000);
        for (int type = FB_CHAR; type <= FB_DOUBLE; type++)
            buffer.add({key_of(type, 1), std::string(8, 'x')});
        buffer.add(stored(1, t(std::string(200, 't')))).add(stored(1, a(std::string(200, 'b'))));
        buffer.add(stored(1, t(""))).add(stored(1, a("1"))).add(stored(1, t("5")));
        for (sdl::record &each : structs) {
            SCOPED_TRACE(testing::Message() << "type " << each.members[0].type << " count "
                                            << each.members[0].count << " element " << each.members[0].element
                                            << " offset " << each.members[0].host_offset);
            char scratch[SIZE];
            if (fbstinit(scratch, &each.name[0]) < 0)
                continue;  // such a struct isn't known at all
            used++;
            std::unique_ptr<char[]> exact(new char[SIZE]());
            use_record(buffer, exact.get(), &each.name[0]);
            std::string guarded(3 * SIZE, PATTERN);
            use_record(buffer, &guarded[SIZE], &each.name[0]);
            EXPECT_EQ(guarded.substr(0, SIZE), std::string(SIZE, PATTERN));
            EXPECT_EQ(guarded.substr(2 * SIZE), std::string(SIZE, PATTERN));
            if (HasFailure())
                return;
        }
        EXPECT_GT(used, 500);
    }

    int used = 0;
};

}  // namespace

TEST_F(OddMembers, WithKeysOfTheirOwnType)
{
    use_all(0);
}

TEST_F(OddMembers, WithKeysOfStrings)
{
    use_all(FB_STRING);
}

TEST_F(OddMembers, WithKeysOfByteArrays)
{
    use_all(FB_CARRAY);
}

TEST_F(OddMembers, WithKeysOfLongs)
{
    use_all(FB_LONG);
}
