// The smaller and the larger of two numbers.
#pragma once

template <typename Number> constexpr Number Smaller(Number a, Number b)
{
    return a < b ? a : b;
}

template <typename Number> constexpr Number Larger(Number a, Number b)
{
    return a > b ? a : b;
}
