// Names against patterns.
#include "runtime/wildcards.h"

#include <fnmatch.h>
#include <regex.h>

extern "C" {

int _match_wc(const char *string, const char *pattern)
{
    if (string == nullptr || pattern == nullptr)
        return 0;
    return fnmatch(pattern, string, 0) == 0;
}

int _match_re(const char *string, const char *pattern)
{
    if (string == nullptr || pattern == nullptr)
        return 0;
    regex_t compiled;
    if (regcomp(&compiled, pattern, 0) != 0)
        return 0;
    regmatch_t match;
    bool found = regexec(&compiled, string, 1, &match, 0) == 0;
    regfree(&compiled);
    return found && match.rm_so == 0 && string[match.rm_eo] == '\0';
}

int _match_pattern(const char *string, const char *pattern)
{
    return _match_wc(string, pattern);
}
}
