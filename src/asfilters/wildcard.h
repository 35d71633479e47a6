// Inside asfilters/: matching a whole text against a pattern with '*' (any run of bytes, also none)
// and '?' (any one byte, on either side). ASCII letters match in either case.
#pragma once

// Whether n bytes of a and b are equal, as above. 1, or 0 (also for null). n below 1 gives 1.
int CompareChars(const char* a, const char* b, int n);
// 1 if the pattern matches the whole text, else 0. A pattern with more than 255 stars matches
// nothing; a null pattern matches any text but null. Allocates nothing.
int MatchWildcard(const char* text, const char* pattern);
