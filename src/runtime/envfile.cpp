// The environment file, and the calls around the environment.
//
// A line of the file is read character by character; what ends a value and what may follow it is told at
// read_assignment. The file only calls putenv: its settings are read where all others are.
#include "runtime/envfile.h"

#include "runtime/errlog.h"
#include "runtime/semantics.h"
#include "runtime/thrapi.h"
#include "runtime/userlog.h"
#include "vorn/errors.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

// Where `out` stands while a line is read into it. It never goes beyond `room`, terminator included.
struct line_out {
    char *text;
    size_t length, room;
};

static int refuse_line(const char *code, const char *reason)
{
    VORN_LOG(0, LEVEL_ERROR, code, "0212 env file error : %s", reason);
    return -1;
}

static bool append_bytes(line_out *out, const char *bytes, size_t count)
{
    if (count >= out->room - out->length)
        return false;
    memcpy(out->text + out->length, bytes, count);
    out->length += count;
    return true;
}

static int too_long(void)
{
    return refuse_line("COM0034", "line too long");
}

static char *skip_blanks(char *p)
{
    while (isspace((unsigned char)*p))
        p++;
    return p;
}

static int read_label(const char *p, line_out *out)
{
    const char *end = strchr(p, ']');
    if (end == nullptr)
        return refuse_line("COM0029", "label without ]");
    if (!append_bytes(out, p, (size_t)(end - p)))
        return too_long();
    out->text[out->length] = '\0';
    return ENV_LABEL;
}

static bool ends_name(char c)
{
    return c == '\0' || c == '}' || c == ')' || isspace((unsigned char)c);
}

// `p` stands behind the "$". The value of the variable ends the line, whatever follows. The variable that
// isn't set adds nothing, not even a terminator: the line then ends where what stood in `out` before it
// happens to end.
static int substitute(char *p, line_out *out)
{
    bool bracket = *p == '{' || *p == '(';
    char *name = bracket ? p + 1 : p;
    char *end = *name == '\0' ? name : name + 1;  // the first character belongs to the name whatever it is
    while (!ends_name(*end))
        end++;
    bool closed = *end == '}' || *end == ')';
    if (closed && !bracket)
        return refuse_line("COM0031", "no pair brace");
    if (!closed && bracket)
        return refuse_line("COM0032", "no pair brace");
    char behind = *end;
    *end = '\0';
    const char *value = getenv(name);
    *end = behind;
    if (value != nullptr && !append_bytes(out, value, strlen(value)))
        return too_long();
    if (value != nullptr)
        out->text[out->length] = '\0';
    return ENV_ASSIGNMENT;
}

// NAME=value from its first character on. A quote may open anywhere and ends the line where it closes;
// outside of quotes the first blank ends it, so that a comment may follow. An open quote runs to the line's
// end.
static int read_assignment(char *p, line_out *out)
{
    bool seen_equal = false, in_quote = false;
    for (; *p != '\0'; p++) {
        if (in_quote ? *p == '"' : isspace((unsigned char)*p) != 0)
            break;
        if (*p == '$' || (p[0] == '\\' && p[1] == '$')) {
            if (!seen_equal)
                return refuse_line("COM0030", "$ or \\$ met without =");
            return substitute(*p == '$' ? p + 1 : p + 2, out);
        }
        if (*p == '"') {
            in_quote = true;
            continue;
        }
        if (*p == '=') {
            if (seen_equal)
                return refuse_line("COM0033", "two = met");
            seen_equal = true;
        }
        if (!append_bytes(out, p, 1))
            return too_long();
    }
    if (!seen_equal)
        return refuse_line("COM0034", "no = met");
    out->text[out->length] = '\0';
    return ENV_ASSIGNMENT;
}

int _process_env_line(char *line, char *out)
{
    line_out target = {out, 0, ENV_OUT_SIZE};
    char *p = skip_blanks(line);
    switch (*p) {
    case '\0':
        return ENV_BLANK;
    case '#':
    case '/':
    case ';':
    case '!':
        return ENV_COMMENT;
    case '[':
        return p[1] == ']' ? ENV_LABEL_END : read_label(p + 1, &target);
    default:
        return read_assignment(p, &target);
    }
}

// Puts a copy into the environment, which owns it from then on.
static int put_copy(const char *assignment)
{
    size_t size = strlen(assignment) + 1;
    char *copy = (char *)malloc(size);
    if (copy == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, "COM0036", "0002 memory allocation error : size = %d", (int)size);
        return -1;
    }
    memcpy(copy, assignment, size);
    if (putenv(copy) != 0) {
        VORN_LOG(1, LEVEL_ERROR, "COM0037", "0101 putenv error : ");
        free(copy);
        return -1;
    }
    return 1;
}

// The lines of the file. The number of assignments made, or -1 if one couldn't be.
static int read_lines(FILE *stream, const char *label, char *out)
{
    char line[ENV_LINE_SIZE];
    bool active = true;
    int count = 0;
    while (fgets(line, sizeof line, stream) != nullptr) {
        switch (_process_env_line(line, out)) {
        case ENV_LABEL_END:
            active = true;
            break;
        case ENV_LABEL:
            active = label != nullptr && strcmp(out, label) == 0;
            break;
        case ENV_ASSIGNMENT:
            if (!active)
                break;
            if (put_copy(out) < 0)
                return -1;
            count++;
            break;
        default:  // blank, comment, or in error: the file goes on
            break;
        }
    }
    return count;
}

int _set_vornenv(const char *file, const char *label)
{
    FILE *stream = fopen(file, "rb");
    if (stream == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, "COM0035", "0010 file open error : %s", file);
        return -1;
    }
    // Cleared, and one byte longer than a line may fill: whatever a line leaves unterminated ends in here.
    char *out = (char *)calloc(1, ENV_OUT_SIZE + 1);
    if (out == nullptr)
        VORN_LOG(1, LEVEL_ERROR, "COM0036", "0002 memory allocation error : size = %d",
                 (int)ENV_OUT_SIZE + 1);
    int count = out == nullptr ? -1 : read_lines(stream, label, out);
    free(out);
    fclose(stream);
    return count > 0 ? 1 : -1;
}

const char *_dflt_env_file(void)
{
    // Written for another platform with single backslashes, which make this a name that no file has. A caller
    // that wants a file gives one.
    return "C:\vorn\vorn.env";
}

void _vorn_clrenvflag(void)
{
    reset_user_log();
    if (getenv("VORN_SEMANTICS") != nullptr)
        _vorn_init_semantics();
}

// A string argument as a trace shows it.
static const api_text TPPUTENV = API_TEXT("tpputenv", "(\"%s\")");
static const api_text VORNREADENV = API_TEXT("vornreadenv", "(\"%s\", \"%s\")");
static const api_text TUXPUTENV = API_TEXT("tuxputenv", "(\"%s\")");
static const api_text TUXREADENV = API_TEXT("tuxreadenv", "(\"%s\", \"%s\")");

char *tpgetenv(const char *name)
{
    api_frame frame;
    if (!api_find(&frame))
        return nullptr;
    _vorn_trace("tpgetenv", 1, TRACE_ENTRY, "tpgetenv(\"%s\")", shown(name));
    set_tperrno(0);
    char *value = name == nullptr ? nullptr : getenv(name);
    _vorn_trace("tpgetenv", 1, TRACE_RESULT, "tpgetenv = \"%s\"", shown(value));
    return value;
}

int tpputenv(char *string)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPPUTENV, shown(string)))
        return -1;
    set_tperrno(0);
    if (string == nullptr)
        return api_fail(&frame, &TPPUTENV, TPEINVAL);
    _vorn_clrenvflag();
    return api_return(&TPPUTENV, putenv(string));
}

int vornreadenv(const char *file, const char *label)
{
    api_frame frame;
    if (!API_ENTER(&frame, VORNREADENV, shown(file), shown(label)))
        return -1;
    set_tperrno(0);
    int result = _set_vornenv(file == nullptr ? _dflt_env_file() : file, label);
    _vorn_clrenvflag();
    return result < 0 ? api_fail(&frame, &VORNREADENV, TPEINVAL) : api_return(&VORNREADENV, result);
}

char *tuxgetenv(const char *name)
{
    _vorn_trace("tuxgetenv", 1, TRACE_ENTRY, "tuxgetenv(\"%s\")", shown(name));
    char *value = tpgetenv(name);
    _vorn_trace("tuxgetenv", 1, TRACE_RESULT, "tuxgetenv = \"%s\"", shown(value));
    return value;
}

int tuxputenv(char *string)
{
    _vorn_trace(TUXPUTENV.name, 1, TRACE_ENTRY, TUXPUTENV.enter, shown(string));
    return api_return(&TUXPUTENV, tpputenv(string));
}

int tuxreadenv(const char *file, const char *label)
{
    _vorn_trace(TUXREADENV.name, 1, TRACE_ENTRY, TUXREADENV.enter, shown(file), shown(label));
    if (vornreadenv(file, label) >= 0)
        return api_return(&TUXREADENV, 1);
    int code = get_tperrno();
    _vorn_trace(TUXREADENV.name, 1, TRACE_ERROR, TUXREADENV.error, code, tpstrerror(code));
    return -1;
}
}
