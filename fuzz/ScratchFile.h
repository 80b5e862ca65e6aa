#pragma once
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace SliceIOFuzz {

// A file in memory with a path the library can open like any other: each input in turn is
// put there. One per process; a memfd costs no disk and cannot collide with parallel runs.
class ScratchFile
{
public:
    ScratchFile()
    {
        _fd = memfd_create("sliceio-fuzz", 0);
        if (_fd < 0)
        {
            std::perror("memfd_create");
            std::abort();
        }
        _path = L"/proc/self/fd/" + std::to_wstring(_fd);
    }
    ~ScratchFile() { close(_fd); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    void Assign(const std::uint8_t* data, std::size_t size)
    {
        if (ftruncate(_fd, 0) != 0)
            std::abort();
        std::size_t done = 0;
        while (done < size)
        {
            const ssize_t n = pwrite(_fd, data + done, size - done, static_cast<off_t>(done));
            if (n <= 0)
                std::abort();
            done += static_cast<std::size_t>(n);
        }
    }
    const std::wstring& Path() const { return _path; }

private:
    int _fd = -1;
    std::wstring _path;
};

} // namespace SliceIOFuzz
