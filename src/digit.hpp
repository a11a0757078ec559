// What a digit is, whatever the locale says.
#pragma once

namespace vandrel {

constexpr bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

} // namespace vandrel
