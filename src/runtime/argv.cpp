// Argument vectors.
#include "runtime/argv.h"

#include "runtime/errlog.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

static constexpr size_t SPARE_POINTERS = 5, SPARE_BYTES = 10;

// A block of `bytes` and a terminator, behind room for `pointers`. The log tells the bytes alone.
static char *argument_block(size_t pointers, size_t bytes, const char *code)
{
    char *block = (char *)malloc(pointers * sizeof(char *) + bytes + 1);
    if (block == nullptr)
        VORN_LOG(1, LEVEL_ERROR, code, "0004 memory allocation error : size = %d", (int)bytes);
    return block;
}

static size_t count_words(const char *string)
{
    size_t words = 0;
    bool inside = false;
    for (; *string != '\0'; string++) {
        bool blank = isspace((unsigned char)*string);
        words += !blank && !inside;
        inside = !blank;
    }
    return words;
}

char **_vorn_build_argv_argc(const char *string, int *argc)
{
    size_t words = count_words(string);
    char **argv = (char **)argument_block(words + SPARE_POINTERS, strlen(string) + SPARE_BYTES, "COM0028");
    if (argv == nullptr)
        return nullptr;
    char *text = (char *)(argv + words + SPARE_POINTERS);
    memcpy(text, string, strlen(string) + 1);
    size_t n = 0;
    bool inside = false;
    for (; *text != '\0'; text++) {
        bool blank = isspace((unsigned char)*text);
        if (!blank && !inside)
            argv[n++] = text;
        else if (blank && inside)
            *text = '\0';
        inside = !blank;
    }
    argv[n] = nullptr;
    *argc = (int)n;
    return argv;
}

char **_vorn_build_argv(const char *command, const char *arguments)
{
    if (arguments == nullptr)
        arguments = "";
    size_t length = strlen(command) + strlen(arguments) + SPARE_BYTES;
    char *line = argument_block(0, length, "COM0026");
    if (line == nullptr)
        return nullptr;
    snprintf(line, length, "%s %s", command, arguments);
    int argc;
    char **argv = _vorn_build_argv_argc(line, &argc);
    free(line);
    return argv;
}

char *_vorn_mkstr_from_argv(int argc, char **argv)
{
    size_t length = 0;
    for (int i = 0; i < argc; i++)
        length += strlen(argv[i]) + SPARE_BYTES;
    char *string = argument_block(0, length, "COM0027");
    if (string == nullptr)
        return nullptr;
    char *end = string;
    for (int i = 0; i < argc; i++) {
        end = stpcpy(end, argv[i]);
        *end++ = ' ';
    }
    *end = '\0';
    return string;
}

int _get_argc_from_argv(char **argv)
{
    int argc = 0;
    while (argv[argc] != nullptr)
        argc++;
    return argc;
}
}
