#include "MFile.h"
#include "ByteOrder.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "StringConversion.h"

namespace {

// Keeps a buffer size usable: at least one byte, and no request for absurd amounts.
std::size_t ClampBufferSize(std::uint64_t size)
{
    constexpr std::uint64_t maxSize = std::uint64_t(1) << 30;
    return static_cast<std::size_t>(std::clamp<std::uint64_t>(size, 1, maxSize));
}

// Reads until n bytes are in or the file ends. Returns the count; sets error on failure.
std::size_t PreadAll(int fd, char* out, std::size_t n, std::int64_t offset, int& error)
{
    std::size_t done = 0;
    while (done < n)
    {
        ssize_t r = ::pread(fd, out + done, n - done, static_cast<off_t>(offset + std::int64_t(done)));
        if (r > 0)
            done += static_cast<std::size_t>(r);
        else if (r == 0)
            break;
        else if (errno != EINTR)
        {
            if (!error)
                error = errno;
            break;
        }
    }
    return done;
}

std::size_t PwriteAll(int fd, const char* in, std::size_t n, std::int64_t offset, int& error)
{
    std::size_t done = 0;
    while (done < n)
    {
        ssize_t r = ::pwrite(fd, in + done, n - done, static_cast<off_t>(offset + std::int64_t(done)));
        if (r > 0)
            done += static_cast<std::size_t>(r);
        else if (r < 0 && errno == EINTR)
            continue;
        else
        {
            if (!error)
                error = r < 0 ? errno : EIO;
            break;
        }
    }
    return done;
}

using ByteOrder::SwapItems;

// Streaming matcher for a fixed text (Knuth-Morris-Pratt), so that a search reads every
// byte once and handles texts whose prefix repeats, such as "$$$HEADER".
class Matcher
{
public:
    explicit Matcher(const char* text) : _text(text), _len(std::strlen(text)), _fail(_len, 0)
    {
        for (std::size_t i = 1, k = 0; i < _len; ++i)
        {
            while (k > 0 && _text[i] != _text[k])
                k = _fail[k - 1];
            if (_text[i] == _text[k])
                ++k;
            _fail[i] = k;
        }
    }
    std::size_t Length() const { return _len; }
    // Given k matched bytes (k < Length()), the number matched after c.
    std::size_t Step(std::size_t k, char c) const
    {
        while (k > 0 && _text[k] != c)
            k = _fail[k - 1];
        return _text[k] == c ? k + 1 : 0;
    }

private:
    const char* _text;
    std::size_t _len;
    std::vector<std::size_t> _fail;
};

// Shared body of both READ_STRING_UNTIL forms. Bytes that may still begin the stop text are
// held back (they are a prefix of it, so only their count is kept) and released once a
// mismatch rules them out. Whatever was read beyond the limit, held back or not, is given
// back with a seek, which stays inside the read buffer in practice.
template <class Sink>
bool ReadUntil(MFile& file, Sink& out, const char* stop, std::size_t limit)
{
    if (!file.IS_OPEN() || !stop)
        return false;
    Matcher matcher(stop);
    if (matcher.Length() == 0)
        return true;
    std::size_t held = 0;
    std::size_t excess = 0;
    auto store = [&](char c) {
        if (out.Size() < limit)
            out.Push(c);
        else
            ++excess;
    };
    while (out.Size() < limit)
    {
        int c = file.GETC();
        if (c < 0)
        {
            for (std::size_t i = 0; i < held; ++i)
                store(stop[i]);
            held = 0;
            break;
        }
        std::size_t next = matcher.Step(held, static_cast<char>(c));
        if (next == matcher.Length())
            return true;
        // The held bytes plus c, less the last `next` of them, can no longer start the stop text.
        for (std::size_t i = 0, n = held + 1 - next; i < n; ++i)
            store(i < held ? stop[i] : static_cast<char>(c));
        held = next;
    }
    if (std::size_t back = held + excess)
        file.SEEK(-static_cast<std::int64_t>(back), 1);
    return false;
}

struct StringSink
{
    std::string& text;
    std::size_t Size() const { return text.size(); }
    void Push(char c) { text.push_back(c); }
};

struct CharSink
{
    char* text;
    std::size_t size = 0;
    std::size_t Size() const { return size; }
    void Push(char c) { text[size++] = c; }
};

} // namespace

MFile::MFile(std::uint64_t bufferSize) : _capacity(ClampBufferSize(bufferSize)) {}

MFile::~MFile()
{
    if (_fd >= 0)
        CLOSE();
}

bool MFile::OPEN_READ(const wchar_t* path) { return _Open(path, O_RDONLY, false); }
// Writing modes open read-write as well, so that a writer may read back what it wrote.
bool MFile::OPEN_WRITE(const wchar_t* path) { return _Open(path, O_RDWR | O_CREAT | O_TRUNC, false); }
bool MFile::OPEN_APPEND(const wchar_t* path) { return _Open(path, O_RDWR | O_CREAT, true); }
bool MFile::OPEN_UPDATE(const wchar_t* path) { return _Open(path, O_RDWR | O_CREAT, false); }

bool MFile::_Open(const wchar_t* path, int flags, bool atEnd)
{
    if (_fd >= 0)
        CLOSE();
    _error = 0;
    _path = path ? path : L"";
    _bufStart = 0;
    _bufLen = 0;
    _bufPos = 0;
    _reading = true;
    if (!path)
        return false;
    std::string native = StringConversion::NativeToUtf8(_path);
    int fd;
    do
        fd = ::open(native.c_str(), flags | O_CLOEXEC, 0644);
    while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return false;
    struct stat st;
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode))
    {
        ::close(fd);
        return false;
    }
    _fd = fd;
    if (atEnd)
        _bufStart = st.st_size;
    if (_buf.size() != _capacity)
        _buf = std::vector<char>(_capacity);
    return true;
}

bool MFile::_FlushWrite()
{
    if (_reading || _bufPos == 0)
        return true;
    std::size_t pending = _bufPos;
    std::size_t written = PwriteAll(_fd, _buf.data(), pending, _bufStart, _error);
    // The position moves on even after a failure; the error stays for GET_ERROR.
    _bufStart += static_cast<std::int64_t>(pending);
    _bufPos = 0;
    return written == pending;
}

void MFile::_StartReading()
{
    if (_reading)
        return;
    _FlushWrite();
    _reading = true;
    _bufLen = 0;
}

void MFile::_StartWriting()
{
    if (!_reading)
        return;
    _bufStart += static_cast<std::int64_t>(_bufPos);
    _bufPos = 0;
    _bufLen = 0;
    _reading = false;
}

bool MFile::_Fill()
{
    if (_bufLen == 0 && _bufPos > 0 && _bufPos < _capacity)
    {
        // A seek left the buffer anchored before the position: load it from the anchor, so
        // that what lies between anchor and position is at hand for seeks back.
        _bufLen = PreadAll(_fd, _buf.data(), _capacity, _bufStart, _error);
        return _bufLen > _bufPos;
    }
    _bufStart += static_cast<std::int64_t>(_bufPos);
    _bufPos = 0;
    _bufLen = PreadAll(_fd, _buf.data(), _capacity, _bufStart, _error);
    return _bufLen > 0;
}

int MFile::_SlowGetc()
{
    if (_fd < 0)
        return -1;
    _StartReading();
    if (_bufPos >= _bufLen && !_Fill())
        return -1;
    return static_cast<unsigned char>(_buf[_bufPos++]);
}

std::size_t MFile::ReadBytes(void* out, std::size_t bytes)
{
    if (_fd < 0 || !out || bytes == 0)
        return 0;
    _StartReading();
    auto* dst = static_cast<char*>(out);
    std::size_t done = 0;
    while (done < bytes)
    {
        if (_bufPos < _bufLen)
        {
            std::size_t n = std::min(_bufLen - _bufPos, bytes - done);
            std::memcpy(dst + done, _buf.data() + _bufPos, n);
            _bufPos += n;
            done += n;
        }
        else if (bytes - done >= _capacity)
        {
            // Too large for the buffer: straight into the caller's memory.
            std::int64_t pos = _bufStart + static_cast<std::int64_t>(_bufPos);
            std::size_t n = PreadAll(_fd, dst + done, bytes - done, pos, _error);
            _bufStart = pos + static_cast<std::int64_t>(n);
            _bufPos = 0;
            _bufLen = 0;
            done += n;
            break;
        }
        else if (!_Fill())
            break;
    }
    return done;
}

const char* MFile::ReadView(std::size_t bytes)
{
    if (_fd < 0 || bytes == 0 || bytes > _capacity)
        return nullptr;
    _StartReading();
    if (_bufPos >= _bufLen && !_Fill())
        return nullptr;
    if (_bufLen - _bufPos < bytes)
    {
        // What is left moves to the front and the rest of the buffer is loaded behind it.
        const std::size_t keep = _bufLen - _bufPos;
        std::memmove(_buf.data(), _buf.data() + _bufPos, keep);
        _bufStart += static_cast<std::int64_t>(_bufPos);
        _bufPos = 0;
        _bufLen = keep + PreadAll(_fd, _buf.data() + keep, _capacity - keep,
                                  _bufStart + static_cast<std::int64_t>(keep), _error);
        if (_bufLen < bytes)
            return nullptr;
    }
    const char* view = _buf.data() + _bufPos;
    _bufPos += bytes;
    return view;
}

std::size_t MFile::WriteBytes(const void* in, std::size_t bytes)
{
    if (_fd < 0 || !in || bytes == 0)
        return 0;
    _StartWriting();
    if (bytes <= _capacity - _bufPos)
    {
        std::memcpy(_buf.data() + _bufPos, in, bytes);
        _bufPos += bytes;
        return bytes;
    }
    _FlushWrite();
    if (bytes < _capacity)
    {
        std::memcpy(_buf.data(), in, bytes);
        _bufPos = bytes;
        return bytes;
    }
    std::size_t n = PwriteAll(_fd, static_cast<const char*>(in), bytes, _bufStart, _error);
    _bufStart += static_cast<std::int64_t>(n);
    return n;
}

template <class T>
std::size_t MFile::_ReadLE(T* out, std::size_t n)
{
    std::size_t bytes = ReadBytes(out, n * sizeof(T));
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    SwapItems(out, bytes / sizeof(T), sizeof(T));
#endif
    return bytes;
}

template <class T>
std::size_t MFile::_WriteLE(const T* in, std::size_t n)
{
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    // Swapped in chunks through a small stack buffer.
    T chunk[512];
    std::size_t done = 0;
    while (in && done < n)
    {
        std::size_t count = std::min(n - done, sizeof(chunk) / sizeof(T));
        std::memcpy(chunk, in + done, count * sizeof(T));
        SwapItems(chunk, count, sizeof(T));
        std::size_t w = WriteBytes(chunk, count * sizeof(T));
        done += count;
        if (w != count * sizeof(T))
            return (done - count) * sizeof(T) + w;
    }
    return done * sizeof(T);
#else
    return WriteBytes(in, n * sizeof(T));
#endif
}

std::size_t MFile::ReadInt16(unsigned short* out, std::size_t n) { return _ReadLE(out, n); }
std::size_t MFile::ReadInt16(short* out, std::size_t n) { return _ReadLE(out, n); }
std::size_t MFile::ReadInt32(int* out, std::size_t n) { return _ReadLE(out, n); }
std::size_t MFile::ReadInt32(unsigned int* out, std::size_t n) { return _ReadLE(out, n); }
std::size_t MFile::ReadInt64(std::int64_t* out, std::size_t n) { return _ReadLE(out, n); }
std::size_t MFile::ReadFloat(float* out, std::size_t n) { return _ReadLE(out, n); }
std::size_t MFile::ReadDouble(double* out, std::size_t n) { return _ReadLE(out, n); }

std::size_t MFile::WriteInt16(const short* in, std::size_t n) { return _WriteLE(in, n); }
std::size_t MFile::WriteInt16(const unsigned short* in, std::size_t n) { return _WriteLE(in, n); }
std::size_t MFile::WriteInt32(const int* in, std::size_t n) { return _WriteLE(in, n); }
std::size_t MFile::WriteInt32(const unsigned int* in, std::size_t n) { return _WriteLE(in, n); }
std::size_t MFile::WriteInt64(const std::int64_t* in, std::size_t n) { return _WriteLE(in, n); }
std::size_t MFile::WriteInt64(const std::uint64_t* in, std::size_t n) { return _WriteLE(in, n); }
std::size_t MFile::WriteFloat(const float* in, std::size_t n) { return _WriteLE(in, n); }
std::size_t MFile::WriteDouble(const double* in, std::size_t n) { return _WriteLE(in, n); }

bool MFile::WRITE_STRING(const char* text)
{
    if (_fd < 0 || !text)
        return false;
    std::size_t len = std::strlen(text);
    return WriteBytes(text, len) == len;
}

bool MFile::WRITE_STRING(const std::string& text)
{
    return _fd >= 0 && WriteBytes(text.data(), text.size()) == text.size();
}

bool MFile::FPRINTF(const char* format, ...)
{
    if (_fd < 0 || !format)
        return false;
    char local[1024];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int len = std::vsnprintf(local, sizeof(local), format, args);
    va_end(args);
    bool ok = false;
    if (len >= 0 && static_cast<std::size_t>(len) < sizeof(local))
        ok = WriteBytes(local, static_cast<std::size_t>(len)) == static_cast<std::size_t>(len);
    else if (len >= 0)
    {
        std::vector<char> big(static_cast<std::size_t>(len) + 1);
        std::vsnprintf(big.data(), big.size(), format, again);
        ok = WriteBytes(big.data(), static_cast<std::size_t>(len)) == static_cast<std::size_t>(len);
    }
    va_end(again);
    return ok;
}

bool MFile::READ_STRING_UNTIL(std::string& out, const char* stop, std::size_t n)
{
    out.clear();
    StringSink sink{out};
    return ReadUntil(*this, sink, stop, n);
}

bool MFile::READ_STRING_UNTIL(char* out, const char* stop, std::size_t n)
{
    if (!out || n == 0)
        return false;
    CharSink sink{out};
    bool found = ReadUntil(*this, sink, stop, n - 1);
    out[sink.size] = '\0';
    return found;
}

bool MFile::SEARCH_STRING(const char* text, std::int64_t limit, bool after)
{
    if (_fd < 0 || !text)
        return false;
    Matcher matcher(text);
    if (matcher.Length() == 0)
        return true;
    std::int64_t pos = TELL();
    std::size_t matched = 0;
    while (limit < 0 || pos < limit)
    {
        int c = GETC();
        if (c < 0)
            break;
        ++pos;
        matched = matcher.Step(matched, static_cast<char>(c));
        if (matched == matcher.Length())
        {
            if (!after)
                SEEK(pos - static_cast<std::int64_t>(matched), 0);
            return true;
        }
    }
    return false;
}

void MFile::SET_BUFFER_SIZE(std::uint64_t size)
{
    std::size_t capacity = ClampBufferSize(size);
    if (_fd >= 0)
    {
        _FlushWrite();
        // Drop what was read ahead; the position stays.
        _bufStart += static_cast<std::int64_t>(_bufPos);
        _bufPos = 0;
        _bufLen = 0;
        if (_buf.size() != capacity)
            _buf = std::vector<char>(capacity);
    }
    _capacity = capacity;
}

bool MFile::IS_EOF()
{
    // A closed file counts as ended, so that a reading loop stops.
    if (_fd < 0)
        return true;
    if (_reading && _bufPos < _bufLen)
        return false;
    return TELL() >= GET_SIZE();
}

bool MFile::SEEK(std::int64_t offset, int origin)
{
    if (_fd < 0)
        return false;
    std::int64_t base;
    switch (origin)
    {
    case 0:
        base = 0;
        break;
    case 1:
        base = TELL();
        break;
    case 2:
        base = GET_SIZE();
        break;
    default:
        return false;
    }
    std::int64_t target;
    if (__builtin_add_overflow(base, offset, &target) || target < 0)
        return false;
    if (_reading)
    {
        if (target >= _bufStart && target <= _bufStart + static_cast<std::int64_t>(_bufLen))
            _bufPos = static_cast<std::size_t>(target - _bufStart);
        else if (_bufLen == 0 && target > _bufStart && target < _bufStart + static_cast<std::int64_t>(_capacity))
            // Nothing loaded since the last seek: keep its target as the buffer's anchor, so
            // that a reader walking backwards can seek ahead of a layer and then onto it and
            // get one buffer load for many layers.
            _bufPos = static_cast<std::size_t>(target - _bufStart);
        else
        {
            _bufStart = target;
            _bufPos = 0;
            _bufLen = 0;
        }
        return true;
    }
    if (target == TELL())
        return true;
    bool ok = _FlushWrite();
    _bufStart = target;
    return ok;
}

std::int64_t MFile::TELL() const
{
    return _fd < 0 ? 0 : _bufStart + static_cast<std::int64_t>(_bufPos);
}

bool MFile::FLUSH()
{
    if (_fd < 0)
        return false;
    _FlushWrite();
    return _error == 0;
}

bool MFile::CLOSE()
{
    if (_fd < 0)
        return false;
    _FlushWrite();
    // close() is not retried after EINTR: the descriptor is gone either way on Linux.
    if (::close(_fd) != 0 && !_error)
        _error = errno;
    _fd = -1;
    _bufStart = 0;
    _bufPos = 0;
    _bufLen = 0;
    _reading = true;
    return _error == 0;
}

std::int64_t MFile::GET_SIZE()
{
    if (_fd < 0)
        return 0;
    struct stat st;
    if (::fstat(_fd, &st) != 0)
    {
        if (!_error)
            _error = errno;
        return 0;
    }
    std::int64_t size = st.st_size;
    if (!_reading)
        size = std::max(size, _bufStart + static_cast<std::int64_t>(_bufPos));
    return size;
}

bool MFile::IS_OPEN() const { return _fd >= 0; }

const std::wstring& MFile::GET_PATH() const { return _path; }

int MFile::GET_ERROR() const { return _error; }
