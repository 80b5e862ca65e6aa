#pragma once
// Loads and stores of fixed-width numbers in a given byte order, at any alignment. Every
// binary format, MFile and the tests read and write their numbers through these.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace ByteOrder {

namespace detail {
template <std::size_t N>
struct UInt;
template <>
struct UInt<1> { using type = std::uint8_t; };
template <>
struct UInt<2> { using type = std::uint16_t; };
template <>
struct UInt<4> { using type = std::uint32_t; };
template <>
struct UInt<8> { using type = std::uint64_t; };

template <class T>
using Bits = typename UInt<sizeof(T)>::type;

template <class T>
inline T FromBits(Bits<T> bits)
{
    T value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

template <class T>
inline Bits<T> ToBits(T value)
{
    Bits<T> bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}
} // namespace detail

// T: any integer or floating-point type of 1, 2, 4 or 8 bytes.
template <class T>
inline T LoadLE(const void* at)
{
    static_assert(std::is_arithmetic<T>::value, "plain numbers only");
    const unsigned char* p = static_cast<const unsigned char*>(at);
    detail::Bits<T> bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bits |= static_cast<detail::Bits<T>>(static_cast<detail::Bits<T>>(p[i]) << (8 * i));
    return detail::FromBits<T>(bits);
}

template <class T>
inline T LoadBE(const void* at)
{
    static_assert(std::is_arithmetic<T>::value, "plain numbers only");
    const unsigned char* p = static_cast<const unsigned char*>(at);
    detail::Bits<T> bits = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i)
        bits = static_cast<detail::Bits<T>>((sizeof(T) > 1 ? bits << 8 : 0) | p[i]);
    return detail::FromBits<T>(bits);
}

template <class T>
inline void StoreLE(void* at, T value)
{
    static_assert(std::is_arithmetic<T>::value, "plain numbers only");
    unsigned char* p = static_cast<unsigned char*>(at);
    const detail::Bits<T> bits = detail::ToBits(value);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        p[i] = static_cast<unsigned char>(bits >> (8 * i));
}

template <class T>
inline void StoreBE(void* at, T value)
{
    static_assert(std::is_arithmetic<T>::value, "plain numbers only");
    unsigned char* p = static_cast<unsigned char*>(at);
    const detail::Bits<T> bits = detail::ToBits(value);
    for (std::size_t i = 0; i < sizeof(T); ++i)
        p[sizeof(T) - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
}

// Byte-swaps n items of size bytes each, in place: for hosts whose order differs from a file's.
inline void SwapItems(void* items, std::size_t n, std::size_t size)
{
    unsigned char* p = static_cast<unsigned char*>(items);
    for (std::size_t i = 0; i < n; ++i, p += size)
        for (std::size_t a = 0, b = size - 1; a < b; ++a, --b)
        {
            const unsigned char t = p[a];
            p[a] = p[b];
            p[b] = t;
        }
}

constexpr bool kHostIsLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

} // namespace ByteOrder
