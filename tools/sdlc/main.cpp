// sdlc: makes the struct definition files that struct buffers are known by. README.md tells of the text and
// the file.
#include "structs.h"

#include "../defs/files.h"
#include "../defs/options.h"

#include <cstdio>

namespace sdlc {

static int dump(const std::string &path)
{
    defs::Report report;
    Definitions definitions;
    std::string bytes;
    if (defs::read_file(path, bytes, report))
        read_binary(path, bytes, definitions, report);
    if (report.errors == 0)
        fputs(text_of(definitions).c_str(), stdout);
    return report.errors > 0;
}

static int work(const defs::Options &options)
{
    if (!options.dump.empty())
        return dump(options.dump);
    defs::Report report;
    defs::FieldTable fields;
    Definitions definitions;
    for (const std::string &path : options.fields)
        defs::read_field_file(path, fields, report);
    for (const std::string &path : options.inputs) {
        std::string text;
        if (defs::read_file(path, text, report))
            read_text(path, text, fields, definitions, report);
    }
    if (report.errors == 0 && definitions.structs.empty())
        complain(report, {options.inputs[0], 0}, "no struct in it");
    if (report.errors > 0)
        return 1;
    std::string header = options.header.empty() ? "" : header_of(definitions, options.header, report);
    if (report.errors > 0)
        return 1;
    if (!options.output.empty())
        write_file(options.output, binary_of(definitions), report);
    if (!options.header.empty())
        write_file(options.header, header, report);
    return report.errors > 0;
}

}  // namespace sdlc

int main(int count, char **words)
{
    using defs::Options;
    return defs::run_program(
        {"sdlc",
         "makes struct definition files out of texts",
         {{"-o", "FILE", "write the binary struct definitions", &Options::output, nullptr},
          {"--c-header", "FILE", "write a header with the C structs", &Options::header, nullptr},
          {"--fields", "FILE", "field table for the names behind key, text or binary; may be repeated",
           nullptr, &Options::fields},
          {"--dump", "FILE", "print a binary file as text", &Options::dump, nullptr}},
         sdlc::work},
        count, words);
}
