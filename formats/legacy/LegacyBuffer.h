#pragma once
// Output staging shared by the legacy formats: records are put together in memory, field by
// field in little-endian order, and go to the file whenever the buffer has grown past a
// quarter megabyte, so that a layer of any size never needs a buffer of its own size and the
// file sees few large writes instead of many small ones.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "../../contracts/ByteOrder.h"
#include "../../contracts/MFile.h"

namespace legacy {

class OutBuffer
{
public:
    static constexpr std::size_t kFlushBytes = 1 << 18;

    // storage is the format's own, kept from layer to layer so that its room is made once.
    // Its size is the room; the bytes in use are counted apart, so that growing into the
    // room never clears bytes that the caller is about to fill.
    OutBuffer(MFile& file, std::vector<char>& storage) : _file(file), _bytes(storage)
    {
        if (_bytes.size() < kFlushBytes + 4096)
            _bytes.resize(kFlushBytes + 4096);
    }
    OutBuffer(const OutBuffer&) = delete;
    OutBuffer& operator=(const OutBuffer&) = delete;

    // Room for n more bytes at the end; the caller fills them.
    char* Grow(std::size_t n)
    {
        const std::size_t at = _used;
        if (_bytes.size() - at < n)
            _bytes.resize(std::max(2 * _bytes.size(), at + n));
        _used = at + n;
        return _bytes.data() + at;
    }
    template <class T>
    void LE(T value)
    {
        ByteOrder::StoreLE<T>(Grow(sizeof(T)), value);
    }
    // Gives back the last n bytes of a Grow that were not used.
    void Shrink(std::size_t n) { _used -= n; }
    void Bytes(const void* data, std::size_t n) { std::memcpy(Grow(n), data, n); }
    void Text(const char* text) { Bytes(text, std::strlen(text)); }

    // Writes out what has gathered once past the flush size; false on a failed write.
    bool MaybeFlush() { return _used < kFlushBytes || Flush(); }
    bool Flush()
    {
        const bool ok = _used == 0 || _file.WriteBytes(_bytes.data(), _used) == _used;
        _used = 0;
        return ok;
    }
    // Forgets what has not been written, after a failure.
    void Drop() { _used = 0; }
    std::size_t Size() const { return _used; }

private:
    MFile& _file;
    std::vector<char>& _bytes;
    std::size_t _used = 0;
};

} // namespace legacy
