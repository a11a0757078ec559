// The kinds of characters, with bits of our own: musl shows no table of them.
#pragma once

namespace std {

struct ctype_base {
    typedef unsigned short mask;
    typedef const int *__to_type;
    static const mask upper = 1;
    static const mask lower = 2;
    static const mask alpha = 4;
    static const mask digit = 8;
    static const mask xdigit = 16;
    static const mask space = 32;
    static const mask print = 64;
    static const mask cntrl = 128;
    static const mask punct = 256;
    static const mask blank = 512;
    static const mask alnum = alpha | digit;
    static const mask graph = alnum | punct;
};

} // namespace std
