#include "ByteCursor.h"

#include <cstring>

bool ByteCursor::Bytes(void* out, std::size_t n)
{
    const unsigned char* at = View(n);
    if (!at)
        return false;
    if (n)
        std::memcpy(out, at, n);
    return true;
}

bool ByteCursor::StringUntil(char terminator, std::string& out, std::size_t max)
{
    if (_failed)
        return false;
    const std::size_t limit = Remaining() < max ? Remaining() : max;
    const void* found = limit ? std::memchr(_pos, static_cast<unsigned char>(terminator), limit) : nullptr;
    if (!found && max < Remaining() && _pos[max] == static_cast<unsigned char>(terminator))
        found = _pos + max;
    if (!found)
        return _Fail();
    const auto* stop = static_cast<const unsigned char*>(found);
    out.assign(reinterpret_cast<const char*>(_pos), static_cast<std::size_t>(stop - _pos));
    _pos = stop + 1;
    return true;
}

bool ByteCursor::String(std::size_t n, std::string& out)
{
    const unsigned char* at = View(n);
    if (!at)
        return false;
    out.assign(reinterpret_cast<const char*>(at), n);
    return true;
}

bool ReadRecord(MFile& file, std::size_t size, std::vector<unsigned char>& storage, ByteCursor& out)
{
    if (size == 0)
    {
        out = ByteCursor(storage.data(), 0);
        return true;
    }
    if (const char* view = file.ReadView(size))
    {
        out = ByteCursor(view, size);
        return true;
    }
    const std::int64_t at = file.TELL();
    const std::int64_t fileSize = file.GET_SIZE();
    if (at < 0 || fileSize < at || static_cast<std::uint64_t>(fileSize - at) < size)
        return false;
    storage.resize(size);
    if (file.ReadBytes(storage.data(), size) != size)
    {
        file.SEEK(at, 0);
        return false;
    }
    out = ByteCursor(storage.data(), size);
    return true;
}

void ByteSink::Bytes(const void* data, std::size_t n)
{
    if (n == 0)
        return;
    const std::size_t at = _Grow(n);
    std::memcpy(_bytes.data() + at, data, n);
}

bool FilePlaceholder::Reserve(MFile& file, std::size_t width)
{
    static const unsigned char zeros[16] = {};
    _at = file.TELL();
    _width = width;
    for (std::size_t left = width; left > 0;)
    {
        const std::size_t n = left < sizeof zeros ? left : sizeof zeros;
        if (file.WriteBytes(zeros, n) != n)
            return false;
        left -= n;
    }
    return true;
}

bool FilePlaceholder::Patch(MFile& file, const void* bytes, std::size_t n) const
{
    if (_at < 0 || n > _width)
        return false;
    const std::int64_t back = file.TELL();
    return file.SEEK(_at, 0) && file.WriteBytes(bytes, n) == n && file.SEEK(back, 0);
}
