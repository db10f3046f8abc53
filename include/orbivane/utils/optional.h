// A value that may be absent; copying copies the value when it is present.
#pragma once

#include <optional>

namespace Utils {

template <typename T>
using Optional = std::optional<T>;

}  // namespace Utils
