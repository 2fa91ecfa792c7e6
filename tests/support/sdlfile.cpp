#include "support/sdlfile.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "support/gtest.h"

namespace sdl {

static void put(std::string &to, int32_t value)
{
    to.append(reinterpret_cast<const char *>(&value), sizeof(value));
}

static void put_long(std::string &to, int64_t value)
{
    to.append(reinterpret_cast<const char *>(&value), sizeof(value));
}

static void put_text(std::string &to, std::string text, size_t width)
{
    text.resize(width);
    to += text;
}

std::string file_bytes(const std::vector<record> &records, int32_t magic)
{
    std::string rows, fields;
    int32_t next = 0;
    for (const record &each : records) {
        put_text(rows, each.name, 32);
        put(rows, next);
        next += static_cast<int32_t>(each.members.size());
        put(rows, next - 1);
        put(rows, each.word);
        put(rows, 0);
        put_long(rows, each.host_size);
        put_long(rows, each.wire_size);
        for (const member &one : each.members) {
            put_text(fields, one.name, 32);
            put(fields, one.key);
            put(fields, one.type);
            put_text(fields, one.null, 32);
            put(fields, one.nested);
            put(fields, one.count);
            put(fields, one.element);
            put(fields, one.host_offset);
            put(fields, one.wire_offset);
        }
    }
    std::string bytes;
    put(bytes, magic);
    put(bytes, static_cast<int32_t>(records.size()));
    put(bytes, next);
    return bytes + rows + fields;
}

void set_word(std::string &bytes, size_t offset, int32_t value)
{
    ASSERT_LE(offset + sizeof(value), bytes.size());
    memcpy(&bytes[offset], &value, sizeof(value));
}

size_t struct_word(size_t row, size_t offset)
{
    return HEADER + STRUCT_ROW * row + offset;
}

size_t member_word(size_t structs, size_t row, size_t offset)
{
    return HEADER + STRUCT_ROW * structs + MEMBER_ROW * row + offset;
}

}

// Removes the files at the end of the process that made them, and not at that of its children.
struct Definitions {
    pid_t owner = getpid();
    std::vector<std::string> paths;
    ~Definitions()
    {
        if (getpid() != owner)
            return;
        for (const std::string &path : paths)
            unlink(path.c_str());
    }
};

std::string write_definition(const std::string &bytes)
{
    static Definitions written;
    std::string path = testing::TempDir() + "definitionXXXXXX";
    int fd = mkstemp(&path[0]);
    EXPECT_GE(fd, 0);
    for (size_t done = 0; done < bytes.size();) {
        ssize_t wrote = write(fd, bytes.data() + done, bytes.size() - done);
        if (wrote <= 0) {
            ADD_FAILURE() << "can't write " << path;
            break;
        }
        done += static_cast<size_t>(wrote);
    }
    close(fd);
    written.paths.push_back(path);
    return path;
}
