// Module state that is never destroyed: when the process exits, what it refers to may be gone already.
#pragma once

namespace vandrel {

template <typename State> union lasting {
    State value;

    lasting() : value{} {}
    lasting(const lasting &) = delete;
    lasting &operator=(const lasting &) = delete;
    ~lasting() {} // NOLINT(modernize-use-equals-default)
};

} // namespace vandrel
