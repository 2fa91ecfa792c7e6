// fdlc: makes the field table files that turn names of fields into keys. README.md tells of the text and the
// file.
#include "table.h"

#include "../defs/files.h"
#include "../defs/options.h"

#include <cstdio>

namespace fdlc {

static std::string type_and_number(int32_t key)
{
    return std::string(defs::type_name(key >> defs::TYPE_SHIFT)) + " " +
           std::to_string(key & defs::HIGHEST_NUMBER);
}

static std::string header_of(const defs::FieldTable &table, const std::string &path, defs::Report &report)
{
    std::string guard = defs::guard_name(path);
    std::string text =
        "/* Field keys. Made by fdlc: change the text it was made from, not this file. */\n#ifndef " + guard +
        "\n#define " + guard + "\n\n";
    for (const defs::Field &field : table.fields) {
        if (!defs::is_c_name(field.name) || field.name == guard)
            complain(report, field.place, "%s can't be a name in the C header",
                     defs::quoted(field.name).c_str());
        text += "#define " + field.name + " " + std::to_string(field.key) + " /* " +
                type_and_number(field.key) + " */\n";
    }
    return text + "\n#endif\n";
}

// Sorted by key, which is how the compiler places them, so the order of a text doesn't get lost by this.
static int dump(const std::string &path)
{
    defs::Report report;
    defs::FieldTable table;
    std::string bytes;
    if (!defs::read_file(path, bytes, report))
        return 1;
    read_field_binary(path, bytes, table, report);
    if (report.errors > 0)
        return 1;
    if (table.rows != usual_rows(table.fields.size()))
        printf("rows %lld\n", static_cast<long long>(table.rows));
    for (auto &[key, index] : table.by_key) {
        const std::string &name = table.fields[index].name;
        bool plain = defs::is_word(name) && name != "base" && name != "rows";
        printf("%s %d %s\n", (plain ? name : defs::quoted(name)).c_str(),
               static_cast<int>(key & defs::HIGHEST_NUMBER), defs::type_name(key >> defs::TYPE_SHIFT));
    }
    return 0;
}

// Rows told by the option, or by the texts, or the usual number.
static int64_t rows_of(const defs::FieldTable &table, const defs::Options &options, defs::Report &report)
{
    int64_t rows = table.rows > 0 ? table.rows : usual_rows(table.fields.size());
    defs::parse_number(options.rows, 1, defs::MOST_ROWS, rows);
    if (rows < static_cast<int64_t>(table.fields.size()))
        complain(report, {options.inputs[0], 0}, "%lld rows don't hold %zu fields",
                 static_cast<long long>(rows), table.fields.size());
    return rows;
}

static int work(const defs::Options &options)
{
    if (!options.dump.empty())
        return dump(options.dump);
    int64_t rows = 0;
    if (!options.rows.empty() && !defs::parse_number(options.rows, 1, defs::MOST_ROWS, rows)) {
        fprintf(stderr, "fdlc: --rows: %s isn't within 1 to %lld\n", options.rows.c_str(),
                static_cast<long long>(defs::MOST_ROWS));
        return 2;
    }
    defs::Report report;
    defs::FieldTable table;
    for (const std::string &path : options.inputs) {
        std::string text;
        if (defs::read_file(path, text, report))
            read_field_text(path, text, table, report);
    }
    if (report.errors == 0 && table.fields.empty())
        complain(report, {options.inputs[0], 0}, "no field in it");
    rows = rows_of(table, options, report);
    std::string header = options.header.empty() ? "" : header_of(table, options.header, report);
    if (report.errors > 0)
        return 1;
    if (!options.output.empty())
        write_file(options.output, binary_of(table, rows), report);
    if (!options.header.empty())
        write_file(options.header, header, report);
    return report.errors > 0;
}

}  // namespace fdlc

int main(int count, char **words)
{
    using defs::Options;
    return defs::run_program(
        {"fdlc",
         "makes field table files out of texts",
         {{"-o", "FILE", "write the binary field table", &Options::output, nullptr},
          {"--c-header", "FILE", "write a header with a #define of each key", &Options::header, nullptr},
          {"--rows", "N", "rows of each hash table; usually a power of two with a quarter free",
           &Options::rows, nullptr},
          {"--dump", "FILE", "print a binary field table as text", &Options::dump, nullptr}},
         fdlc::work},
        count, words);
}
