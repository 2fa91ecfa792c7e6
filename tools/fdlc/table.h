// The binary field table: two hash tables whose rows stand where the library looks for them.
#ifndef FDLC_TABLE_H
#define FDLC_TABLE_H

#include "../defs/fields.h"

namespace fdlc {

// Rows that a table of so many fields gets when nobody tells.
int64_t usual_rows(size_t fields);

// The bytes of the file. `rows` is at least the number of fields.
std::string binary_of(const defs::FieldTable &table, int64_t rows);

}  // namespace fdlc

#endif
