// Sizes that several modules share, each of a text with its NUL.
#pragma once

#include <cstddef>

#include <net/if.h>

namespace vandrel {

inline constexpr std::size_t common_name_size = 27;
inline constexpr std::size_t ifname_size = IF_NAMESIZE;
inline constexpr std::size_t portname_size = 14;

} // namespace vandrel
