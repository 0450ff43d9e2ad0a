#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>

// What std::make_unique_for_overwrite does, which the libraries of the oldest supported release lack: memory
// that its user writes before it reads.

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
