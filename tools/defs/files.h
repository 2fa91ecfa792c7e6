// Reading and writing whole files.
#ifndef DEFS_FILES_H
#define DEFS_FILES_H

#include "text.h"

namespace defs {

// False after an error that is complained of.
bool read_file(const std::string &path, std::string &bytes, Report &report);

// Under another name in the same folder first, then renamed: nobody sees half a file, and an error leaves the
// old one. What is no plain file, such as /dev/stdout, is written to as it stands.
bool write_file(const std::string &path, const std::string &bytes, Report &report);

// A table row as it lies in memory is what a file holds: the host's byte order.
template <typename Row> void append_row(std::string &bytes, const Row &row)
{
    bytes.append(reinterpret_cast<const char *>(&row), sizeof row);
}

// Row number `index` of the rows that begin at `offset`; the caller has seen to it that the file holds it.
template <typename Row> Row row_at(const std::string &bytes, size_t offset, size_t index)
{
    Row row;
    bytes.copy(reinterpret_cast<char *>(&row), sizeof row, offset + index * sizeof row);
    return row;
}

// A name or text that lies NUL-terminated in `room` bytes; false without a NUL.
bool text_in(const char *room, size_t size, std::string &text);

}  // namespace defs

#endif
