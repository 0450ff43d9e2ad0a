#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>

// Memory that its user writes before it reads, so it is not cleared. The same as
// std::make_unique_for_overwrite, which the C++ library of the oldest supported distribution lacks.

template <class T, std::enable_if_t<!std::is_array_v<T>, int> = 0>
std::unique_ptr<T> pMakeForOverwrite()
{
    return std::unique_ptr<T>(new T);
}

template <class T, std::enable_if_t<std::is_unbounded_array_v<T>, int> = 0>
std::unique_ptr<T> pMakeForOverwrite(std::size_t nCount)
{
    return std::unique_ptr<T>(new std::remove_extent_t<T>[nCount]);
}
