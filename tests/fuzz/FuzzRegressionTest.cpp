// Replays the inputs kept beside the fuzz targets through the same code the targets run:
// fuzz/regressions/read-* through the read path, fuzz/regressions/roundtrip-* through the
// write-and-read-back check, and the seed corpora, which are valid files and stacks.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/ReadPath.h"
#include "fuzz/RoundTrip.h"
#include "fuzz/ScratchFile.h"

namespace {

namespace fs = std::filesystem;

const fs::path& FuzzDir()
{
    static const fs::path dir = fs::path(SLICEIO_TESTDATA_DIR).parent_path().parent_path() / "fuzz";
    return dir;
}

std::vector<fs::path> FilesIn(const fs::path& dir, const std::string& prefix)
{
    std::vector<fs::path> files;
    if (fs::is_directory(dir))
        for (const auto& entry : fs::directory_iterator(dir))
            if (entry.is_regular_file() && entry.path().filename().string().rfind(prefix, 0) == 0)
                files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::uint8_t> Bytes(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

} // namespace

TEST(FuzzRegression, StoredReadInputsReadCleanly)
{
    const auto files = FilesIn(FuzzDir() / "regressions", "read-");
    if (files.empty())
        GTEST_SKIP() << "no stored read inputs in " << (FuzzDir() / "regressions");
    SliceIOFuzz::ScratchFile scratch;
    for (const auto& file : files)
    {
        SCOPED_TRACE(file.filename().string());
        const auto bytes = Bytes(file);
        EXPECT_EQ(SliceIOFuzz::RunReadInput(scratch, bytes.data(), bytes.size()), "");
    }
}

TEST(FuzzRegression, StoredRoundTripInputsComeBackUnchanged)
{
    const auto files = FilesIn(FuzzDir() / "regressions", "roundtrip-");
    if (files.empty())
        GTEST_SKIP() << "no stored round-trip inputs in " << (FuzzDir() / "regressions");
    SliceIOFuzz::ScratchFile scratch;
    for (const auto& file : files)
    {
        SCOPED_TRACE(file.filename().string());
        const auto bytes = Bytes(file);
        EXPECT_EQ(SliceIOFuzz::RunRoundTripInput(scratch.Path(), bytes.data(), bytes.size()), "");
    }
}

// The read seeds are well-formed files of three layers each (binary long and short form, mixed
// forms, ASCII): every pass must get through all of them, and the read, scan and iterator passes
// must agree on them.
TEST(FuzzRegression, SeedFilesReadCompletelyAndConsistently)
{
    const auto files = FilesIn(FuzzDir() / "corpus" / "cli_read", "");
    ASSERT_FALSE(files.empty());
    SliceIOFuzz::ScratchFile scratch;
    for (const auto& file : files)
    {
        SCOPED_TRACE(file.filename().string());
        const auto bytes = Bytes(file);
        EXPECT_EQ(SliceIOFuzz::RunReadInput(scratch, bytes.data(), bytes.size()), "");
        const SliceIOFuzz::ReadFlags flags(bytes[0]);
        const auto read = SliceIOFuzz::ReadPass(scratch.Path(), flags, 0);
        const auto scan = SliceIOFuzz::ScanPass(scratch.Path(), flags, 0);
        EXPECT_TRUE(read.Complete);
        EXPECT_TRUE(scan.Complete);
        EXPECT_EQ(read.Layers.size(), 3u);
        EXPECT_EQ(scan.Layers.size(), 3u);
    }
}

TEST(FuzzRegression, SeedStacksRoundTrip)
{
    const auto files = FilesIn(FuzzDir() / "corpus" / "cli_roundtrip", "");
    ASSERT_FALSE(files.empty());
    SliceIOFuzz::ScratchFile scratch;
    std::size_t layers = 0;
    for (const auto& file : files)
    {
        SCOPED_TRACE(file.filename().string());
        const auto bytes = Bytes(file);
        SliceIOFuzz::ByteReader in(bytes.data(), bytes.size());
        const SliceIOFuzz::RoundTripCase stack(in);
        layers += stack.NumLayers();
        EXPECT_EQ(stack.Run(scratch.Path()), "");
    }
    // The seeds are meant to build layers; a generator that builds none would check nothing.
    EXPECT_GT(layers, 0u);
}
