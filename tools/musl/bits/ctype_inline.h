// Included by libstdc++'s <locale>; only ever compiled here, since all that the library links is in libstdc++.
#pragma once

namespace std {

inline bool ctype<char>::is(mask wanted, char c) const
{
    return (_M_table[static_cast<unsigned char>(c)] & wanted) != 0;
}

inline const char *ctype<char>::is(const char *low, const char *high, mask *to) const
{
    while (low < high)
        *to++ = _M_table[static_cast<unsigned char>(*low++)];
    return high;
}

inline const char *ctype<char>::scan_is(mask wanted, const char *low, const char *high) const
{
    while (low < high && !is(wanted, *low))
        ++low;
    return low;
}

inline const char *ctype<char>::scan_not(mask wanted, const char *low, const char *high) const
{
    while (low < high && is(wanted, *low))
        ++low;
    return low;
}

} // namespace std
