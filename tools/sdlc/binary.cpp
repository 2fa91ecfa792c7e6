#include "structs.h"

#include "../defs/files.h"

namespace sdlc {

constexpr int32_t STRUCT_FILE_MAGIC = 7777;

struct FileHead {
    int32_t magic;
    int32_t structs;
    int32_t members;
};

struct StructRow {
    char name[NAME_SIZE];
    int32_t first;  // its members, from 0 over the whole file
    int32_t last;   // inclusive
    int32_t word;
    int32_t unused;
    int64_t host_size;
    int64_t wire_size;
};

struct MemberRow {
    char name[NAME_SIZE];
    int32_t key;
    int32_t type;
    char null_text[NULL_TEXT_SIZE];
    int32_t nested;   // number of a struct row
    int32_t count;    // bytes for the types of bytes, elements for the others
    int32_t element;  // bytes, for the types of bytes
    int32_t host_offset;
    int32_t wire_offset;
};

static_assert(sizeof(FileHead) == 12 && sizeof(StructRow) == 64 && sizeof(MemberRow) == 92);

static MemberRow row_of(const Member &member)
{
    MemberRow row{};
    member.name.copy(row.name, sizeof row.name - 1);
    member.null_text.copy(row.null_text, sizeof row.null_text - 1);
    row.key = member.key;
    row.type = member.type;
    row.nested = static_cast<int32_t>(member.nested);
    row.count = static_cast<int32_t>(member.elements * member.element);
    row.element = is_bytes(member.type) ? static_cast<int32_t>(member.element) : 0;
    row.host_offset = static_cast<int32_t>(member.host_offset);
    row.wire_offset = static_cast<int32_t>(member.wire_offset);
    return row;
}

std::string binary_of(const Definitions &definitions)
{
    std::string structs, members;
    int32_t count = 0;
    for (const Struct &owner : definitions.structs) {
        StructRow row{};
        owner.name.copy(row.name, sizeof row.name - 1);
        row.first = count;
        for (const Member &member : owner.members)
            defs::append_row(members, row_of(member));
        count += static_cast<int32_t>(owner.members.size());
        row.last = count - 1;
        row.word = owner.word;
        row.host_size = owner.host_size;
        row.wire_size = owner.wire_size;
        defs::append_row(structs, row);
    }
    std::string bytes;
    defs::append_row(bytes,
                     FileHead{STRUCT_FILE_MAGIC, static_cast<int32_t>(definitions.structs.size()), count});
    return bytes + structs + members;
}

// What is wrong with a row, or null; a text couldn't say it then.
static const char *member_of(const MemberRow &row, size_t structs_before, Member &member)
{
    if (!defs::text_in(row.name, sizeof row.name, member.name) || !defs::is_word(member.name))
        return "a name that is no word";
    if (!defs::text_in(row.null_text, sizeof row.null_text, member.null_text))
        return "a null value without its NUL";
    if (row.type < defs::CHAR || row.type > defs::STRUCT)
        return "an unknown type";
    if (row.type == defs::STRUCT && (row.nested < 0 || static_cast<size_t>(row.nested) >= structs_before))
        return "a nested struct that doesn't stand in front of it";
    if (row.key != 0 && !defs::is_key(row.key))
        return "a key that no field has";
    bool bytes = is_bytes(row.type);
    if (row.count < 1 || (bytes && (row.element < 1 || row.count % row.element != 0)) ||
        (row.type == defs::CHAR && row.element != 1))
        return "a count that isn't made of whole elements";
    if (row.host_offset < 0 || row.wire_offset < 0)
        return "a negative offset";
    member.host_offset = row.host_offset;
    member.wire_offset = row.wire_offset;
    member.type = row.type;
    member.key = row.key;
    member.nested = row.type == defs::STRUCT ? static_cast<size_t>(row.nested) : 0;
    member.element = bytes ? row.element : 1;
    member.elements = row.count / member.element;
    return nullptr;
}

// Takes the offsets and sizes as given only where they aren't those that would be reckoned anyway.
static void settle_layout(const Definitions &definitions, const StructRow &head, Struct &owner)
{
    std::vector<Member> members = std::move(owner.members);
    owner.members.clear();
    for (Member &member : members) {
        Sizes next = next_offsets(definitions, owner, member);
        member.placed = member.host_offset != next.host || member.wire_offset != next.wire;
        append_member(definitions, owner, member);
    }
    finish_sizes(owner);
    owner.sized = owner.host_size != head.host_size || owner.wire_size != head.wire_size;
    owner.host_size = head.host_size;
    owner.wire_size = head.wire_size;
}

static void read_struct(const StructRow &row, const std::string &bytes, size_t members_at,
                        Definitions &definitions, const defs::Place &place, defs::Report &report)
{
    Struct owner;
    if (!defs::text_in(row.name, sizeof row.name, owner.name) || !defs::is_word(owner.name)) {
        complain(report, place, "struct %zu has a name that is no word", definitions.structs.size());
        return;
    }
    owner.word = row.word;
    for (int32_t i = row.first; i <= row.last; i++) {
        Member member;
        MemberRow member_row = defs::row_at<MemberRow>(bytes, members_at, static_cast<size_t>(i));
        if (const char *what = member_of(member_row, definitions.structs.size(), member)) {
            complain(report, place, "member %d, in struct %s, has %s", i, owner.name.c_str(), what);
            return;
        }
        owner.members.push_back(member);
    }
    settle_layout(definitions, row, owner);
    definitions.structs.push_back(owner);
}

void read_binary(const std::string &file, const std::string &bytes, Definitions &definitions,
                 defs::Report &report)
{
    defs::Place place{file, 0};
    FileHead head{};
    if (bytes.size() >= sizeof head)
        head = defs::row_at<FileHead>(bytes, 0, 0);
    if (head.magic != STRUCT_FILE_MAGIC) {
        complain(report, place, "no struct definition file");
        return;
    }
    size_t structs = static_cast<uint32_t>(head.structs), members = static_cast<uint32_t>(head.members);
    size_t members_at = sizeof head + structs * sizeof(StructRow);
    if (head.structs < 0 || head.members < 0 || bytes.size() != members_at + members * sizeof(MemberRow)) {
        complain(report, place, "%zu bytes don't hold %d structs and %d members", bytes.size(), head.structs,
                 head.members);
        return;
    }
    for (size_t i = 0; i < structs; i++) {
        StructRow row = defs::row_at<StructRow>(bytes, sizeof head, i);
        if (row.first < 0 || row.last < row.first || row.last >= head.members || row.host_size < 1 ||
            row.host_size > MOST_BYTES || row.wire_size < 1 || row.wire_size > MOST_BYTES) {
            complain(report, place, "struct %zu has members or sizes that can't be", i);
            return;
        }
        read_struct(row, bytes, members_at, definitions, place, report);
        if (report.errors > 0)
            return;  // the numbers of the structs behind it mean nothing any more
    }
}

}  // namespace sdlc
