#include "fields.h"

#include "files.h"

namespace defs {

static const char *const TYPE_NAMES[] = {"",      "char",   "short",  "int",    "long",
                                         "float", "double", "string", "carray", "struct"};

const char *type_name(int type)
{
    return TYPE_NAMES[type >= CHAR && type <= STRUCT ? type : 0];
}

int field_type(std::string_view name)
{
    for (int type = CHAR; type <= CARRAY; type++) {
        if (name == TYPE_NAMES[type])
            return type;
    }
    return 0;
}

bool is_key(int64_t key)
{
    int64_t type = key >> TYPE_SHIFT, number = key & ((1 << TYPE_SHIFT) - 1);
    return type >= CHAR && type <= CARRAY && number >= 1 && number <= HIGHEST_NUMBER;
}

static std::string shown_place(const Place &place)
{
    return place.line > 0 ? place.file + ":" + std::to_string(place.line) : place.file;
}

static void add_field(const Field &field, FieldTable &table, Report &report)
{
    auto name = table.by_name.find(field.name);
    if (name != table.by_name.end()) {
        complain(report, field.place, "name %s is taken since %s", field.name.c_str(),
                 shown_place(table.fields[name->second].place).c_str());
        return;
    }
    auto key = table.by_key.find(field.key);
    if (key != table.by_key.end()) {
        const Field &other = table.fields[key->second];
        complain(report, field.place, "%s has the type and number of %s at %s", field.name.c_str(),
                 other.name.c_str(), shown_place(other.place).c_str());
        return;
    }
    table.by_name[field.name] = table.by_key[field.key] = table.fields.size();
    table.fields.push_back(field);
}

using Line = std::vector<Token>;

// "base NUMBER" and "rows NUMBER".
static void read_setting(const Line &line, const Place &place, int64_t &base, FieldTable &table,
                         Report &report)
{
    bool rows = line[0].text == "rows";
    int64_t most = rows ? MOST_ROWS : HIGHEST_NUMBER;
    if (line.size() != 2 || !parse_number(line[1].text, rows ? 1 : 0, most, rows ? table.rows : base))
        complain(report, place, "%s needs a number up to %lld and nothing else", line[0].text.c_str(),
                 static_cast<long long>(most));
}

// "NAME NUMBER TYPE"
static void read_field(const Line &line, const Place &place, int64_t base, FieldTable &table, Report &report)
{
    const std::string &name = line[0].text;
    if (line.size() != 3 || (line[0].kind != Kind::WORD && line[0].kind != Kind::QUOTED)) {
        complain(report, place, "a line is: NAME NUMBER TYPE, or base NUMBER, or rows NUMBER");
        return;
    }
    if (name.empty() || name.size() >= FIELD_NAME_SIZE) {
        complain(report, place, "name of %zu characters; it has 1 to %zu", name.size(), FIELD_NAME_SIZE - 1);
        return;
    }
    int64_t number = 0;
    if (!parse_number(line[1].text, -HIGHEST_NUMBER, HIGHEST_NUMBER, number) || number + base < 1 ||
        number + base > HIGHEST_NUMBER) {
        complain(report, place, "number %s with base %lld isn't within 1 to %lld", shown(line[1]).c_str(),
                 static_cast<long long>(base), static_cast<long long>(HIGHEST_NUMBER));
        return;
    }
    int type = field_type(line[2].text);
    if (type == 0) {
        complain(report, place, "unknown type %s", shown(line[2]).c_str());
        return;
    }
    add_field({name, make_key(type, number + base), place}, table, report);
}

void read_field_text(const std::string &file, std::string_view text, FieldTable &table, Report &report)
{
    std::vector<Token> tokens = scan(file, text, report);
    int64_t base = 0;
    for (size_t first = 0; tokens[first].kind != Kind::END;) {
        size_t last = first;
        while (tokens[last].kind != Kind::END && tokens[last].line == tokens[first].line)
            last++;
        Line line(tokens.begin() + static_cast<ptrdiff_t>(first),
                  tokens.begin() + static_cast<ptrdiff_t>(last));
        Place place{file, line[0].line};
        if (is(line[0], "base") || is(line[0], "rows"))
            read_setting(line, place, base, table, report);
        else
            read_field(line, place, base, table, report);
        first = last;
    }
}

void read_field_binary(const std::string &file, const std::string &bytes, FieldTable &table, Report &report)
{
    Place place{file, 0};
    FieldFileHead head{};
    if (bytes.size() >= sizeof head)
        head = row_at<FieldFileHead>(bytes, 0, 0);
    if (head.magic != FIELD_FILE_MAGIC) {
        complain(report, place, "no field table file");
        return;
    }
    size_t rows = static_cast<size_t>(head.rows), keys_at = sizeof head + rows * sizeof(NameRow);
    if (head.rows < 1 || head.rows > MOST_ROWS || bytes.size() != keys_at + rows * sizeof(KeyRow)) {
        complain(report, place, "%zu bytes don't hold two tables of %d rows", bytes.size(), head.rows);
        return;
    }
    std::vector<bool> keyed(rows);
    for (size_t i = 0; i < rows; i++) {
        KeyRow key = row_at<KeyRow>(bytes, keys_at, i);
        if (key.row == -1)
            continue;
        std::string name;
        if (key.row < 0 || key.row >= head.rows) {
            complain(report, place, "row %zu of the key table names a row %d", i, key.row);
            continue;
        }
        keyed[static_cast<size_t>(key.row)] = true;
        NameRow row = row_at<NameRow>(bytes, sizeof head, static_cast<size_t>(key.row));
        if (!text_in(row.name, sizeof row.name, name) || name.empty() || row.key != key.key ||
            !is_key(key.key))
            complain(report, place, "rows %d and %zu of the two tables make no field", key.row, i);
        else
            add_field({name, key.key, place}, table, report);
    }
    for (size_t i = 0; i < rows; i++) {
        if (!keyed[i] && row_at<NameRow>(bytes, sizeof head, i).name[0] != 0)
            complain(report, place, "row %zu of the name table has no row in the key table", i);
    }
    table.rows = head.rows;
}

void read_field_file(const std::string &path, FieldTable &table, Report &report)
{
    std::string bytes;
    if (!read_file(path, bytes, report))
        return;
    int32_t magic = bytes.size() < sizeof magic ? 0 : row_at<int32_t>(bytes, 0, 0);
    if (magic == FIELD_FILE_MAGIC)
        read_field_binary(path, bytes, table, report);
    else
        read_field_text(path, bytes, table, report);
}

}  // namespace defs
