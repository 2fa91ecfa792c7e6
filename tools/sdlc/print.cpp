#include "structs.h"

namespace sdlc {

static std::string in_brackets(int64_t number)
{
    return "[" + std::to_string(number) + "]";
}

// "[3][32]" and the like; `bytes`: the size of an element counts as a dimension.
static std::string counts_of(const Member &member)
{
    bool texts = member.type == defs::STRING || member.type == defs::CARRAY;
    std::string counts = member.elements == 1 ? "" : in_brackets(member.elements);
    return texts ? counts + in_brackets(member.element) : counts;
}

static std::string type_of(const Definitions &definitions, const Member &member)
{
    std::string type = defs::type_name(member.type);
    return member.type == defs::STRUCT ? type + " " + definitions.structs[member.nested].name : type;
}

static std::string c_type_of(const Definitions &definitions, const Member &member)
{
    return is_bytes(member.type) ? "char" : type_of(definitions, member);
}

static std::string line_of(const Definitions &definitions, const Member &member)
{
    std::string line = "    " + type_of(definitions, member) + " " + member.name + counts_of(member);
    if (member.key != 0)
        line += " key " + std::string(defs::type_name(member.key >> defs::TYPE_SHIFT)) + " " +
                std::to_string(member.key & defs::HIGHEST_NUMBER);
    if (member.null_text != default_null(member.type))
        line += " null " + defs::quoted(member.null_text);
    if (member.placed)
        line += " at " + std::to_string(member.host_offset) + ", " + std::to_string(member.wire_offset);
    return line + ";\n";
}

std::string text_of(const Definitions &definitions)
{
    std::string text;
    for (const Struct &owner : definitions.structs) {
        text += (text.empty() ? "struct " : "\nstruct ") + owner.name;
        if (owner.sized)
            text += " size " + std::to_string(owner.host_size) + ", " + std::to_string(owner.wire_size);
        if (owner.word != 0)
            text += " word " + std::to_string(owner.word);
        text += " {\n";
        for (const Member &member : owner.members)
            text += line_of(definitions, member);
        text += "};\n";
    }
    return text;
}

// True if the C compiler puts it where the definition does.
static bool is_as_in_c(const Definitions &definitions, const Struct &owner)
{
    Struct reckoned;
    for (const Member &member : owner.members) {
        if (member.host_offset != next_offsets(definitions, reckoned, member).host)
            return false;
        append_member(definitions, reckoned, member);
    }
    finish_sizes(reckoned);
    return reckoned.host_size == owner.host_size;
}

std::string header_of(const Definitions &definitions, const std::string &path, defs::Report &report)
{
    std::string guard = defs::guard_name(path);
    std::string text =
        "/* Struct definitions. Made by sdlc: change the text it was made from, not this file. */\n"
        "#ifndef " +
        guard + "\n#define " + guard + "\n";
    for (const Struct &owner : definitions.structs) {
        if (!defs::is_c_name(owner.name) || owner.name == guard)
            complain(report, owner.place, "%s can't be a name in the C header", owner.name.c_str());
        if (!is_as_in_c(definitions, owner))
            complain(report, owner.place, "struct %s isn't laid out as in C, so the C header can't have it",
                     owner.name.c_str());
        text += "\nstruct " + owner.name + " {\n";
        for (const Member &member : owner.members) {
            if (!defs::is_c_name(member.name) || member.name == guard)
                complain(report, member.place, "%s can't be a name in the C header", member.name.c_str());
            text += "    " + c_type_of(definitions, member) + " " + member.name + counts_of(member) + ";\n";
        }
        text += "};\n";
    }
    return text + "\n#endif\n";
}

}  // namespace sdlc
