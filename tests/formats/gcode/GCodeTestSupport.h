#pragma once
// Slices with labelled vector blocks, and a whole write of them through a G-code writer's
// public operations, for the G-code tests.
#include <memory>
#include <string>
#include <vector>

#include "contracts/M2DSliceStack.h"
#include "formats/gcode/M2DSliceIO_gcode.h"
#include "formats/gcode/M2DSliceIO_gcode_V2.h"
#include "tests/TestSupport.h"

namespace gcodetest {

struct Vec
{
    int x1, y1, x2, y2;
};

struct BlockSpec
{
    e2DSliceVectorType Type = e2DSliceVectorType_Hatch;
    std::vector<Vec> Vectors;
    int Nozzle = -1;     // -1: not set
    int Part = 0;
    int Parameter = 0;
    bool Support = false;
    bool Coasting = false;
};

inline std::shared_ptr<M2DSlice> Slice(int z, const std::vector<BlockSpec>& blocks)
{
    auto slice = std::make_shared<M2DSlice>();
    slice->SetZ(z);
    for (const BlockSpec& spec : blocks)
    {
        M2DSliceVectorBlock* block = slice->GetVectorsUpdate()->AddVectorBlockAtEnd();
        M2DSliceVectorTypeInfo info(spec.Type);
        if (spec.Nozzle != -1)
            info.SetIndex(e2DSliceVectorTypeIndex_Nozzle, spec.Nozzle);
        info.SetIndex(e2DSliceVectorTypeIndex_Part, spec.Part);
        info.SetIndex(e2DSliceVectorTypeIndex_Parameter, spec.Parameter);
        info.SetFlag(e2DSliceVectorTypeFlag_1, spec.Support);
        info.SetFlag(e2DSliceVectorTypeFlag_7, spec.Coasting);
        block->SetTypeInfo(info);
        for (const Vec& v : spec.Vectors)
            block->Vectors.emplace_back(v.x1, v.y1, v.x2, v.y2);
    }
    return slice;
}

// Writes the slices, one layer each, through the writer's public operations and returns the
// file's text. A slice without geometry is handed over as a layer with no items.
inline std::string Write(I2DSliceIO& writer, const std::vector<std::shared_ptr<M2DSlice>>& slices,
                         bool* layersOk = nullptr)
{
    ts::ScratchDir dir;
    const M2DSliceStack source;
    const std::vector<const ISource2DSlices*> sources{&source};
    EXPECT_TRUE(writer.OpenFile(dir.WFile("out.gcode"), I2DSliceIO::Write));
    EXPECT_TRUE(writer.WriteHeader(sources, 10000, 1)) << writer.GetFailureReason();
    bool ok = true;
    for (const auto& slice : slices)
    {
        M2DSliceConstDataItems items;
        items.AddSlice(slice);
        ok = writer.WriteLayer(sources, items) && ok;
    }
    if (layersOk)
        *layersOk = ok;
    else
        EXPECT_TRUE(ok) << writer.GetFailureReason();
    EXPECT_TRUE(writer.WriteFooter(sources));
    EXPECT_TRUE(writer.CloseFile());
    return ts::ReadFile(dir.File("out.gcode"));
}

inline std::string Lines(std::initializer_list<const char*> lines)
{
    std::string text;
    for (const char* line : lines)
        text += std::string(line) + "\n";
    return text;
}

} // namespace gcodetest
