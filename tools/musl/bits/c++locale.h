// As libstdc++ has it for a C library with the one locale "C".
#pragma once
#include <clocale>
#include <cstdarg>
#include <cstdio>

#define _GLIBCXX_NUM_CATEGORIES 0

namespace std {

typedef int *__c_locale;

inline int __convert_from_v(const __c_locale &, char *out, int size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(out, static_cast<size_t>(size), format, args);
    va_end(args);
    return length;
}

} // namespace std
