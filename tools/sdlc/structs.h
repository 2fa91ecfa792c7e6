// Struct definitions: read from a text, laid out, written as a binary file, and back.
#ifndef SDLC_STRUCTS_H
#define SDLC_STRUCTS_H

#include "../defs/fields.h"

#include <map>

namespace sdlc {

constexpr size_t NAME_SIZE = 32;       // of structs and members, NUL included
constexpr size_t COMPARED = 16;        // characters of a struct's name that the library looks at
constexpr size_t NULL_TEXT_SIZE = 32;  // NUL included
constexpr int64_t MOST_BYTES = INT32_MAX;
constexpr int DEEPEST = 64;  // structs in one another that the library takes

struct Member {
    std::string name;
    defs::Place place;
    int type = 0;
    size_t nested = 0;  // number of the struct, for STRUCT
    int64_t elements = 1;
    int64_t element = 1;  // bytes of one, for CHAR, STRING and CARRAY
    int32_t key = 0;      // 0: mapped to no field
    std::string null_text;
    bool placed = false;  // the offsets were given, not reckoned
    int64_t host_offset = 0;
    int64_t wire_offset = 0;
};

struct Struct {
    std::string name;
    defs::Place place;
    int32_t word = 0;
    std::vector<Member> members;
    bool sized = false;  // the sizes were given, not reckoned
    bool wrong = false;  // a member was complained of and left out
    int64_t host_size = 0;
    int64_t wire_size = 0;
    int64_t align = 1;  // on the host
    int depth = 1;      // 1 without nested structs
};

struct Definitions {
    std::vector<Struct> structs;
    std::map<std::string, size_t> by_compared;  // by what is looked at of a name
};

struct Sizes {
    int64_t host;
    int64_t wire;
};

bool is_bytes(int type);  // the types whose count is in bytes: CHAR, STRING, CARRAY
std::string default_null(int type);
Sizes sizes_of(const Definitions &definitions, const Member &member);  // of all its elements

// Where the member goes behind those that stand in the struct.
Sizes next_offsets(const Definitions &definitions, const Struct &owner, const Member &member);
// The sizes grow with it, unless they are given.
void append_member(const Definitions &definitions, Struct &owner, const Member &member);
// Once all members are there: rounds the host's size up.
void finish_sizes(Struct &owner);

// They complain of what is wrong.
void read_text(const std::string &file, std::string_view text, const defs::FieldTable &fields,
               Definitions &definitions, defs::Report &report);
void read_binary(const std::string &file, const std::string &bytes, Definitions &definitions,
                 defs::Report &report);

std::string binary_of(const Definitions &definitions);
std::string text_of(const Definitions &definitions);
std::string header_of(const Definitions &definitions, const std::string &path, defs::Report &report);

}  // namespace sdlc

#endif
