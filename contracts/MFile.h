#pragma once
#include "../framework/Export.h"
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

// Buffered binary and text file. One buffer serves reading and writing; it is positioned
// by explicit offsets (no operating-system file position), so seeks inside the buffer
// cost nothing and switching between reading and writing needs no bookkeeping by callers.
//
// Errors: an operating-system failure (open aside, which just returns false) sets an error
// code that sticks until the next open; GET_ERROR() reports it. Reading short at the end of
// the file is not an error: the read returns fewer items.
class SLICEIO_API MFile
{
public:
    explicit MFile(std::uint64_t bufferSize = 0x40000);
    MFile(const MFile&) = delete;
    MFile& operator=(const MFile&) = delete;
    virtual ~MFile();

    // Opening closes a file that is open first. OPEN_READ: read-only. OPEN_WRITE: created or
    // emptied. OPEN_APPEND: created if missing, positioned at the end. OPEN_UPDATE: created
    // if missing, kept as it is, positioned at the start. The writing modes may read too.
    bool OPEN_READ(const wchar_t* path);
    bool OPEN_WRITE(const wchar_t* path);
    bool OPEN_APPEND(const wchar_t* path);
    bool OPEN_UPDATE(const wchar_t* path);

    // Reads n items in the host's byte order; returns the number of whole items read.
    template <class T>
    std::size_t READ(T* out, std::size_t n)
    {
        static_assert(std::is_arithmetic<T>::value, "READ takes plain numbers");
        return ReadBytes(out, n * sizeof(T)) / sizeof(T);
    }
    // Little-endian reads; return the number of bytes read.
    std::size_t ReadInt16(unsigned short* out, std::size_t n);
    std::size_t ReadInt16(short* out, std::size_t n);
    std::size_t ReadInt32(int* out, std::size_t n);
    std::size_t ReadInt32(unsigned int* out, std::size_t n);
    std::size_t ReadInt64(std::int64_t* out, std::size_t n);
    std::size_t ReadFloat(float* out, std::size_t n);
    std::size_t ReadDouble(double* out, std::size_t n);

    // Writes n items in the host's byte order; returns the number of items written.
    template <class T>
    std::size_t WRITE(const T* in, std::size_t n)
    {
        static_assert(std::is_arithmetic<T>::value, "WRITE takes plain numbers");
        return WriteBytes(in, n * sizeof(T)) / sizeof(T);
    }
    // Little-endian writes; return the number of bytes written.
    std::size_t WriteInt16(const short* in, std::size_t n);
    std::size_t WriteInt16(const unsigned short* in, std::size_t n);
    std::size_t WriteInt32(const int* in, std::size_t n);
    std::size_t WriteInt32(const unsigned int* in, std::size_t n);
    std::size_t WriteInt64(const std::int64_t* in, std::size_t n);
    std::size_t WriteInt64(const std::uint64_t* in, std::size_t n);
    std::size_t WriteFloat(const float* in, std::size_t n);
    std::size_t WriteDouble(const double* in, std::size_t n);

    std::size_t ReadBytes(void* out, std::size_t bytes);
    // Reads the next bytes in place: a pointer to them inside the buffer, valid until the
    // next call on the file. Null, with the position kept, when they are more than the
    // buffer holds or the file ends before them.
    const char* ReadView(std::size_t bytes);
    std::size_t WriteBytes(const void* in, std::size_t bytes);

    bool WRITE_STRING(const char* text);
    bool WRITE_STRING(const std::string& text);
    bool FPRINTF(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Reads until the stop text has been read (it is consumed and not stored) or n bytes
    // have been stored. True when the stop text was met.
    bool READ_STRING_UNTIL(std::string& out, const char* stop, std::size_t n);
    // The same into a buffer of n bytes, always terminated (at most n - 1 bytes stored).
    bool READ_STRING_UNTIL(char* out, const char* stop, std::size_t n);

    // Searches forward from the position for the text, which must end at or before the
    // absolute position limit (-1: no limit). When found, the position is left behind the
    // text (after true) or at its start (after false); when not, at the limit or the end.
    bool SEARCH_STRING(const char* text, std::int64_t limit, bool after);

    void REWIND() { SEEK(0, 0); }

    // Flushes, drops what was read ahead and keeps the position.
    virtual void SET_BUFFER_SIZE(std::uint64_t size);
    // True at or past the end; also true for a closed file, so that reading loops end.
    virtual bool IS_EOF();
    // origin 0: from the start, 1: from the position, 2: from the end. A target before the
    // start fails and leaves the position.
    virtual bool SEEK(std::int64_t offset, int origin);
    virtual std::int64_t TELL() const;
    // FLUSH and CLOSE are false when any operation since the open failed.
    virtual bool FLUSH();
    virtual bool CLOSE();
    virtual std::int64_t GET_SIZE();
    virtual bool IS_OPEN() const;
    virtual const std::wstring& GET_PATH() const;
    virtual int GET_ERROR() const;

    // Reads one byte; -1 at the end.
    int GETC()
    {
        if (_reading && _bufPos < _bufLen)
            return static_cast<unsigned char>(_buf[_bufPos++]);
        return _SlowGetc();
    }

private:
    bool _Open(const wchar_t* path, int flags, bool atEnd);
    bool _FlushWrite();
    void _StartReading();
    void _StartWriting();
    bool _Fill();
    int _SlowGetc();
    template <class T>
    std::size_t _ReadLE(T* out, std::size_t n);
    template <class T>
    std::size_t _WriteLE(const T* in, std::size_t n);

    int _fd = -1;
    std::wstring _path;
    std::vector<char> _buf;
    std::size_t _capacity;
    std::int64_t _bufStart = 0; // file offset of _buf[0]
    std::size_t _bufLen = 0;    // reading: valid bytes in the buffer
    std::size_t _bufPos = 0;    // cursor in the buffer; writing: pending bytes
    bool _reading = true;
    int _error = 0;
};
