// Reads arbitrary bytes as a Common Layer Interface file along every path a caller takes.
#include <cstdio>
#include <cstdlib>

#include "ReadPath.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static SliceIOFuzz::ScratchFile file;
    const std::string problem = SliceIOFuzz::RunReadInput(file, data, size);
    if (!problem.empty())
    {
        std::fprintf(stderr, "fuzz_cli_read: %s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
