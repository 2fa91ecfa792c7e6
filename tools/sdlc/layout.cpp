#include "structs.h"

#include <algorithm>

namespace sdlc {

// Bytes of one element on the host, which are its alignment too, and on the wire.
static const Sizes UNITS[] = {{0, 0}, {1, 1}, {2, 2}, {4, 4}, {8, 4}, {4, 4}, {8, 8}, {1, 1}, {1, 1}};

bool is_bytes(int type)
{
    return type == defs::CHAR || type == defs::STRING || type == defs::CARRAY;
}

std::string default_null(int type)
{
    return is_bytes(type) || type == defs::STRUCT ? "" : "0";
}

static Sizes unit_of(const Definitions &definitions, const Member &member)
{
    if (is_bytes(member.type))
        return {member.element, member.element};
    if (member.type != defs::STRUCT)
        return UNITS[member.type];
    const Struct &nested = definitions.structs[member.nested];
    return {nested.host_size, nested.wire_size};
}

Sizes sizes_of(const Definitions &definitions, const Member &member)
{
    // Both factors are at most MOST_BYTES, so the products fit.
    Sizes unit = unit_of(definitions, member);
    return {unit.host * member.elements, unit.wire * member.elements};
}

static int64_t align_of(const Definitions &definitions, const Member &member)
{
    return member.type == defs::STRUCT ? definitions.structs[member.nested].align : UNITS[member.type].host;
}

static int64_t round_up(int64_t size, int64_t align)
{
    return (size + align - 1) / align * align;
}

Sizes next_offsets(const Definitions &definitions, const Struct &owner, const Member &member)
{
    Sizes end{0, 0};
    if (!owner.members.empty()) {
        const Member &last = owner.members.back();
        Sizes sizes = sizes_of(definitions, last);
        end = {last.host_offset + sizes.host, last.wire_offset + sizes.wire};
    }
    return {round_up(end.host, align_of(definitions, member)), end.wire};
}

void append_member(const Definitions &definitions, Struct &owner, const Member &member)
{
    Sizes sizes = sizes_of(definitions, member);
    owner.align = std::max(owner.align, align_of(definitions, member));
    if (member.type == defs::STRUCT)
        owner.depth = std::max(owner.depth, definitions.structs[member.nested].depth + 1);
    if (!owner.sized) {
        owner.host_size = std::max(owner.host_size, member.host_offset + sizes.host);
        owner.wire_size = std::max(owner.wire_size, member.wire_offset + sizes.wire);
    }
    owner.members.push_back(member);
}

void finish_sizes(Struct &owner)
{
    if (!owner.sized)
        owner.host_size = round_up(owner.host_size, owner.align);
}

}  // namespace sdlc
