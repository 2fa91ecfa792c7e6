// Names against patterns.
#ifndef VORN_RUNTIME_WILDCARDS_H
#define VORN_RUNTIME_WILDCARDS_H

extern "C" {

// 1 if the pattern covers the whole string, else 0; a null argument matches nothing.
int _match_wc(const char *string, const char *pattern);  // "*", "?" and "[...]", as a shell has them
int _match_re(const char *string, const char *pattern);  // a basic regular expression; 0 for a faulty one
int _match_pattern(const char *string, const char *pattern);  // the kind that the calls take: _match_wc
}

#endif
