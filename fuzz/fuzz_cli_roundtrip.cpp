// Builds a random stack from the bytes, writes it as binary CLI and checks what comes back.
#include <cstdio>
#include <cstdlib>

#include "RoundTrip.h"
#include "ScratchFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static SliceIOFuzz::ScratchFile file;
    const std::string problem = SliceIOFuzz::RunRoundTripInput(file.Path(), data, size);
    if (!problem.empty())
    {
        std::fprintf(stderr, "fuzz_cli_roundtrip: %s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
