#include <algorithm>
// Every readable format to every writable format through `sliceio convert`, from one
// generated multi-part build: layer count, heights, extents, part count and names, and
// block counts, each within what the formats involved document as lost. Rows and columns
// come from the registered format families, so a family that registers appears here.
#include <filesystem>
#include <set>

#include <nlohmann/json.hpp>

#include "contracts/M2DSliceStack.h"
#include "framework/FormatDescriptor.h"
#include "framework/M2DSliceContainerIO.h"
#include "formats/sectioned/M2DSliceIO_slm.h"
#include "framework/M2DSliceIOFactory.h"
#include "tests/kit/BuildGenerator.h"
#include "tests/kit/FormatTestKit.h"
#include "tests/tools/ToolRunner.h"

namespace fs = std::filesystem;

namespace {

// One code per format shown: codes that name the same format of a family (CLI's long form
// under several codes) are converted once.
std::vector<FormatCodeRow> DistinctRows(bool reads, bool writes)
{
    std::vector<FormatCodeRow> rows;
    std::set<std::pair<std::string, std::string>> seen;
    for (const FormatCodeRow& row : FormatRegistry::Codes())
    {
        if ((reads && !row.Reads) || (writes && !row.Writes) || !M2DSliceIOFactory::GetSliceIO(row.Code))
            continue;
        if (seen.insert({FormatRegistry::ForCode(row.Code)->Family, row.Name}).second)
            rows.push_back(row);
    }
    return rows;
}

unsigned LossesOf(short code)
{
    const FormatDescriptor* family = FormatRegistry::ForCode(code);
    return family ? family->Losses : FormatLoss_None;
}

// What is compared after a chain of writes: the union of the losses, where contours that a
// format cannot hold come back as vectors, since the tool turns them into vector blocks.
unsigned Compared(unsigned losses)
{
    if (losses & FormatLoss_Contours)
        losses = (losses & ~FormatLoss_Contours) | FormatLoss_ContoursAsVectors;
    return losses;
}

// True when the format refuses the build at every resolution the tool could choose.
bool RefusedForRange(short code, const std::vector<const ISource2DSlices*>& sources)
{
    const FormatDescriptor* family = FormatRegistry::ForCode(code);
    if (!family || !family->CheckWriteRange)
        return false;
    M2DSliceSourceVector joined;
    joined.GetOptions().JoinByHeight = true;
    joined.SetVector(sources);
    for (std::int32_t resolution : {1000, 100, 10, 1})
        if (family->CheckWriteRange(code, joined, 10000, resolution).empty())
            return false;
    return true;
}

class ConversionMatrixTest : public ToolTest
{
};

} // namespace

TEST_F(ConversionMatrixTest, EveryReadableFormatToEveryWritableFormat)
{
    constexpr short kCli = 0;
    BuildGenerator build(BuildShape::Rich(4, 3));
    const auto parts = build.SplitByPart();
    std::vector<const ISource2DSlices*> sources;
    for (const auto& part : parts)
        sources.push_back(part.get());
    const M2DSliceXYArea area = build.GetXYArea();

    // The build reaches each input format the way a user's file would: from CLI, through the
    // tool, with no settings file.
    const std::string origin = Path("build.cli");
    M2DSliceContainerIO cli(kCli);
    ASSERT_TRUE(cli.WriteContainers(sources, ts::Wide(origin), 10000, 1000, nullptr));

    const std::vector<FormatCodeRow> inputs = DistinctRows(true, true);
    const std::vector<FormatCodeRow> outputs = DistinctRows(false, true);
    ASSERT_FALSE(inputs.empty());
    int compared = 0;
    for (const FormatCodeRow& from : inputs)
    {
        SCOPED_TRACE(std::string("from ") + from.Name + " (code " + std::to_string(from.Code) + ")");
        const std::string in = Path("in." + std::to_string(from.Code));
        const ToolRun made = Tool({"convert", origin, in, "--to", std::to_string(from.Code)});
        if (made.Code != 0 && RefusedForRange(from.Code, sources))
            continue;
        ASSERT_EQ(made.Code, 0) << made.Err;
        // The input's own step: what it rounded to is carried on.
        double inStep = 0.0;
        {
            std::shared_ptr<I2DSliceIO> probe = M2DSliceIOFactory::GetSliceIO(from.Code);
            if (probe && probe->OpenFile(ts::Wide(in), I2DSliceIO::Read) && probe->ReadHeader(nullptr))
            {
                M2DSliceContainerIOProperties scale;
                probe->GetIoProperties(scale);
                if (scale.InverseResolution > 0)
                    inStep = static_cast<double>(scale.UnitConversionFactor) / scale.InverseResolution;
            }
            if (probe)
                probe->CloseFile();
        }
        for (const FormatCodeRow& to : outputs)
        {
            SCOPED_TRACE(std::string("to ") + to.Name + " (code " + std::to_string(to.Code) + ")");
            const std::string out = Path("out." + std::to_string(from.Code) + "." + std::to_string(to.Code));
            const ToolRun run = Tool({"convert", in, out, "--type", std::to_string(from.Code), "--to",
                                      std::to_string(to.Code)});
            if (run.Code != 0 && RefusedForRange(to.Code, sources))
                continue; // the build does not fit the format (negative coordinates in an unsigned form)
            ASSERT_EQ(run.Code, 0) << run.Err;
            EXPECT_NE(run.Out.find("4 layers"), std::string::npos) << run.Out;
            ASSERT_GT(fs::file_size(out), 0u);
            if (!to.Reads)
                continue;

            const unsigned losses = LossesOf(kCli) | LossesOf(from.Code) | LossesOf(to.Code);
            M2DSliceStack read;
            // A compressed SLM build file reads back as the tool reads it: in repair mode (the
            // library's default mode keeps the quirk that cannot read its own files).
            std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(to.Code);
            if (auto* slm = dynamic_cast<M2DSliceIO_slm*>(io.get()))
                slm->SetDecompressRepair(true);
            M2DSliceContainerIO reader(io);
            ASSERT_TRUE(reader.ReadContainer(read, ts::Wide(out), true)) << reader.GetSliceIO()->GetFailureReason();
            ++compared;
            // Within two steps of the coarser of the two files (a format may pick its own step).
            M2DSliceContainerIOProperties scale;
            reader.GetSliceIO()->GetIoProperties(scale);
            const double step = scale.InverseResolution > 0
                                    ? static_cast<double>(scale.UnitConversionFactor) / scale.InverseResolution
                                    : 0.0;
            const double near = std::max({20.0, 2.0 * step, 2.0 * inStep});
            kit::ExpectSameBuild(sources, read, Compared(losses), static_cast<int>(near));
            const M2DSliceXYArea got = read.GetXYArea();
            EXPECT_NEAR(got.XMin, area.XMin, near);
            EXPECT_NEAR(got.XMax, area.XMax, near);
            EXPECT_NEAR(got.YMin, area.YMin, near);
            EXPECT_NEAR(got.YMax, area.YMax, near);

            // Part names, where the output format declares them.
            if (!(losses & FormatLoss_Parts))
            {
                const nlohmann::json info = nlohmann::json::parse(Ok({"info", out, "--json", "--declared", "--type", std::to_string(to.Code)}));
                // A format that names fewer parts than it holds must say so when writing.
                const nlohmann::json& declared = info.at("declared").at("parts");
                if (!declared.empty() && declared.size() != parts.size())
                    EXPECT_NE(run.Out.find("part names not kept"), std::string::npos) << run.Out;
                else if (!declared.empty())
                {
                    std::vector<std::string> names;
                    for (const auto& [key, properties] : declared.items())
                        names.push_back(properties.value("PartName", ""));
                    EXPECT_EQ(names, (std::vector<std::string>{"part1", "part2", "part3"})) << info.dump();
                }
            }
        }
    }
    EXPECT_GT(compared, 0);
}
