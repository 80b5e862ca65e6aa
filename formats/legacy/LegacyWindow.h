#pragma once
// Input side of the legacy formats: a window onto the bytes ahead of the read position, in
// place in the file's buffer and taken a large chunk at a time, so that a reader walks many
// small records (a boundary head, a point, a text line) with plain pointer steps instead of
// one file call each. The file's own position stands at the end of the chunk while the
// window is in use; Sync (also on destruction) puts it back where the reader got to.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "../../contracts/MFile.h"
#include "../../framework/ByteCursor.h"

namespace legacy {

class InWindow
{
public:
    // The largest chunk taken at once; a file buffer smaller than that gives smaller chunks,
    // and chunk (the format's own, kept between layers) remembers the size that worked.
    static constexpr std::size_t kChunk = 1 << 16;

    InWindow(MFile& file, std::size_t& chunk)
        : _file(file), _chunk(chunk), _fileSize(file.GET_SIZE()), _start(file.TELL())
    {
    }
    ~InWindow() { Sync(); }
    InWindow(const InWindow&) = delete;
    InWindow& operator=(const InWindow&) = delete;

    std::int64_t Tell() const { return _start + (_p - _base); }
    std::int64_t FileSize() const { return _fileSize; }
    std::int64_t Left() const { return _fileSize - Tell(); }

    // n contiguous bytes from the cursor; false when the file holds fewer or they do not fit
    // into the file's buffer (then Record still reads them).
    bool Ensure(std::size_t n) { return static_cast<std::size_t>(_end - _p) >= n || _Load(n); }
    const unsigned char* Data() const { return _p; }
    // The end of the bytes in the window now; Data() to End() may be read without a call.
    const unsigned char* End() const { return _end; }
    void Skip(std::size_t n) { _p += n; }

    // The next n bytes, in place when they fit into a chunk, else copied into storage; null,
    // with the cursor kept, when the file ends before them.
    const unsigned char* Record(std::size_t n, std::vector<unsigned char>& storage)
    {
        if (Ensure(n))
        {
            const unsigned char* at = _p;
            _p += n;
            return at;
        }
        if (Left() < static_cast<std::int64_t>(n))
            return nullptr;
        Sync();
        _Drop(Tell());
        ByteCursor record;
        if (!ReadRecord(_file, n, storage, record))
            return nullptr;
        _start = _file.TELL();
        return record.Data();
    }

    // One byte, -1 at the end of the file.
    int Get()
    {
        if (_p < _end)
            return *_p++;
        return _Load(1) ? *_p++ : -1;
    }

    // Moves the cursor to an absolute position; one before the start is refused, as a file
    // seek refuses it.
    void Seek(std::int64_t position)
    {
        if (position < 0)
            return;
        if (_base && position >= _start && position <= _start + (_end - _base))
            _p = _base + (position - _start);
        else
            _Drop(position);
    }

    void Sync() { _file.SEEK(Tell(), 0); }

private:
    void _Drop(std::int64_t position)
    {
        _base = _p = _end = nullptr;
        _start = position;
    }

    bool _Load(std::size_t n)
    {
        const std::int64_t at = Tell();
        const std::int64_t left = _fileSize - at;
        if (left < static_cast<std::int64_t>(n))
            return false;
        _file.SEEK(at, 0);
        std::size_t want = static_cast<std::size_t>(std::min<std::int64_t>(left, std::max(n, _chunk)));
        for (;;)
        {
            if (const char* view = _file.ReadView(want))
            {
                _base = _p = reinterpret_cast<const unsigned char*>(view);
                _end = _base + want;
                _start = at;
                return true;
            }
            if (want <= n)
                break;
            // A quarter less each time, so that a small buffer is still used nearly whole.
            want = std::max(n, want - std::max<std::size_t>(1, want / 4));
            _chunk = want;
        }
        _file.SEEK(at, 0);
        _Drop(at);
        return false;
    }

    MFile& _file;
    std::size_t& _chunk;
    const std::int64_t _fileSize;
    std::int64_t _start; // file position of _base
    const unsigned char* _base = nullptr;
    const unsigned char* _p = nullptr;
    const unsigned char* _end = nullptr;
};

} // namespace legacy
