#pragma once
// Bounded decoding of binary data. A ByteCursor walks a span of bytes; every read is checked
// against the bytes left, and a read that does not fit fails, leaves its output untouched and
// makes the cursor fail from then on (Failed()), so a decoder may read a whole record and test
// once at the end. Nothing is ever read outside the span.
//
// A section-tree format reads a section of known size out of the file once (ReadRecord) and
// decodes it with a cursor; nested sections are sub-cursors (Sub).
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../contracts/ByteOrder.h"
#include "../contracts/MFile.h"

class ByteCursor
{
public:
    ByteCursor() = default;
    ByteCursor(const void* data, std::size_t size)
        : _begin(static_cast<const unsigned char*>(data)), _pos(_begin), _end(_begin + size)
    {
    }
    explicit ByteCursor(const std::vector<unsigned char>& bytes) : ByteCursor(bytes.data(), bytes.size()) {}
    explicit ByteCursor(const std::string& bytes) : ByteCursor(bytes.data(), bytes.size()) {}

    std::size_t Size() const { return static_cast<std::size_t>(_end - _begin); }
    std::size_t Offset() const { return static_cast<std::size_t>(_pos - _begin); }
    std::size_t Remaining() const { return static_cast<std::size_t>(_end - _pos); }
    bool AtEnd() const { return _pos == _end; }
    // True once any read has failed.
    bool Failed() const { return _failed; }
    bool Ok() const { return !_failed; }
    const unsigned char* Data() const { return _pos; }

    // True when n more bytes are there (and the cursor has not failed).
    bool Has(std::size_t n) const { return !_failed && n <= Remaining(); }
    // True when count items of size bytes each are there; a product that would overflow is
    // simply too large. Use before allocating room for items a file announces.
    bool HasItems(std::uint64_t count, std::size_t size) const
    {
        return !_failed && (size == 0 || count <= Remaining() / size);
    }

    template <class T>
    bool LE(T& out)
    {
        if (!_Take(sizeof(T)))
            return false;
        out = ByteOrder::LoadLE<T>(_pos - sizeof(T));
        return true;
    }
    template <class T>
    bool BE(T& out)
    {
        if (!_Take(sizeof(T)))
            return false;
        out = ByteOrder::LoadBE<T>(_pos - sizeof(T));
        return true;
    }
    // n items in little-endian order.
    template <class T>
    bool LEArray(T* out, std::size_t n)
    {
        if (!HasItems(n, sizeof(T)))
            return _Fail();
        for (std::size_t i = 0; i < n; ++i, _pos += sizeof(T))
            out[i] = ByteOrder::LoadLE<T>(_pos);
        return true;
    }
    bool U8(std::uint8_t& out) { return LE(out); }

    bool Bytes(void* out, std::size_t n);
    bool Skip(std::size_t n) { return _Take(n); }
    // The next n bytes in place, or null (and failed) when they are not there.
    const unsigned char* View(std::size_t n)
    {
        if (!_Take(n))
            return nullptr;
        return _pos - n;
    }
    // The next n bytes as a cursor of their own; this cursor moves past them.
    bool Sub(std::size_t n, ByteCursor& out)
    {
        const unsigned char* at = View(n);
        if (!at)
            return false;
        out = ByteCursor(at, n);
        return true;
    }
    // Bytes up to the terminator, which is consumed and not stored; at most max bytes before
    // it. Fails when the terminator is not met within max bytes or the span.
    bool StringUntil(char terminator, std::string& out, std::size_t max = SIZE_MAX);
    // Exactly n bytes as text (zeros included).
    bool String(std::size_t n, std::string& out);
    // Moves to an offset of the span; fails beyond its end.
    bool Seek(std::size_t offset)
    {
        if (_failed || offset > Size())
            return _Fail();
        _pos = _begin + offset;
        return true;
    }
    // Clears the failure, for a decoder that tries an alternative.
    void Recover() { _failed = false; }

private:
    bool _Take(std::size_t n)
    {
        if (!Has(n))
            return _Fail();
        _pos += n;
        return true;
    }
    bool _Fail()
    {
        _failed = true;
        return false;
    }

    const unsigned char* _begin = nullptr;
    const unsigned char* _pos = nullptr;
    const unsigned char* _end = nullptr;
    bool _failed = false;
};

// Reads the next size bytes of the file and gives a cursor over them: in place in the file's
// buffer when they fit there (valid until the next call on the file), else copied into
// storage. False, with the file position kept, when the file ends before them: a record is
// never read in part, and storage never grows beyond what the file still holds.
bool ReadRecord(MFile& file, std::size_t size, std::vector<unsigned char>& storage, ByteCursor& out);

// Appends numbers in a byte order to a byte vector: sections that must be complete, or whose
// size must lead them, are built in memory and written at once.
class ByteSink
{
public:
    explicit ByteSink(std::vector<unsigned char>& bytes) : _bytes(bytes) {}

    template <class T>
    void LE(T value)
    {
        const std::size_t at = _Grow(sizeof(T));
        ByteOrder::StoreLE<T>(_bytes.data() + at, value);
    }
    template <class T>
    void BE(T value)
    {
        const std::size_t at = _Grow(sizeof(T));
        ByteOrder::StoreBE<T>(_bytes.data() + at, value);
    }
    void Bytes(const void* data, std::size_t n);
    void String(const std::string& text) { Bytes(text.data(), text.size()); }
    // Room for a value known later: its offset, filled with zeros.
    std::size_t Placeholder(std::size_t n) { return _Grow(n); }
    template <class T>
    void PatchLE(std::size_t at, T value)
    {
        ByteOrder::StoreLE<T>(_bytes.data() + at, value);
    }
    template <class T>
    void PatchBE(std::size_t at, T value)
    {
        ByteOrder::StoreBE<T>(_bytes.data() + at, value);
    }
    std::size_t Size() const { return _bytes.size(); }
    std::vector<unsigned char>& Buffer() { return _bytes; }

private:
    std::size_t _Grow(std::size_t n)
    {
        const std::size_t at = _bytes.size();
        _bytes.resize(at + n);
        return at;
    }
    std::vector<unsigned char>& _bytes;
};

// A value of fixed width written now as a placeholder and patched later by seeking back:
// for counts and sizes known only after what they describe has been written.
class FilePlaceholder
{
public:
    // Writes width zero bytes at the file's position and remembers where.
    bool Reserve(MFile& file, std::size_t width);
    // Writes the bytes over the placeholder (at most its width) and returns to where the
    // file was. False on a write or seek failure or before Reserve.
    bool Patch(MFile& file, const void* bytes, std::size_t n) const;
    template <class T>
    bool PatchLE(MFile& file, T value) const
    {
        unsigned char bytes[sizeof(T)];
        ByteOrder::StoreLE<T>(bytes, value);
        return Patch(file, bytes, sizeof bytes);
    }
    template <class T>
    bool PatchBE(MFile& file, T value) const
    {
        unsigned char bytes[sizeof(T)];
        ByteOrder::StoreBE<T>(bytes, value);
        return Patch(file, bytes, sizeof bytes);
    }
    std::int64_t Position() const { return _at; }
    std::size_t Width() const { return _width; }

private:
    std::int64_t _at = -1;
    std::size_t _width = 0;
};

// Writes bytes, checking that all were written.
inline bool WriteAll(MFile& file, const void* data, std::size_t n) { return file.WriteBytes(data, n) == n; }
inline bool WriteAll(MFile& file, const std::vector<unsigned char>& bytes)
{
    return WriteAll(file, bytes.data(), bytes.size());
}
template <class T>
inline bool WriteLE(MFile& file, T value)
{
    unsigned char bytes[sizeof(T)];
    ByteOrder::StoreLE<T>(bytes, value);
    return WriteAll(file, bytes, sizeof bytes);
}
template <class T>
inline bool WriteBE(MFile& file, T value)
{
    unsigned char bytes[sizeof(T)];
    ByteOrder::StoreBE<T>(bytes, value);
    return WriteAll(file, bytes, sizeof bytes);
}
