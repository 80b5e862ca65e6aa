#pragma once
// What the SLM tests share: sources with the properties an SLM writer reads, hand-made
// blocks, and writing and reading whole files.
#include <gtest/gtest.h>

#include <regex>
#include <zlib.h>

#include "contracts/M2DSliceStack.h"
#include "formats/sectioned/M2DSliceIO_slm.h"
#include "framework/M2DSliceContainerIO.h"
#include "tests/TestSupport.h"
#include "tests/kit/FormatTestKit.h"

namespace slmtest {

using Indexed = IndexedProperties<PersistentProperties>;

struct Style
{
    std::int32_t Id = 3;
    std::int32_t PointDistance = 70;
    std::int32_t ExposureTime = 80;
    double Focus = 0.5, Power = 200.0, Speed = 1000.0;
    double PowerFactor = 1.0, SpeedFactor = 1.0;
    std::int32_t LaserIndex = 1;
    std::wstring Name = L"c";
};

inline void AddStyle(Indexed& list, const Style& s, bool support = false)
{
    PersistentProperties& item = list.Add();
    item.SetValue(L"SLMBuildStyleID", s.Id);
    item.SetValue(L"PointDistance", s.PointDistance);
    item.SetValue(L"ExposureTime", s.ExposureTime);
    item.SetValue(L"LaserFocus", s.Focus);
    item.SetValue(L"LaserPower", s.Power);
    item.SetValue(L"LaserSpeed", s.Speed);
    item.SetValue(L"LaserPowerFactor", s.PowerFactor);
    item.SetValue(L"LaserSpeedFactor", s.SpeedFactor);
    item.SetValue(L"LaserIndex", s.LaserIndex);
    item.SetValue(support ? L"VectorType" : L"SLMBuildStyleName", s.Name);
}

// The keys a part source carries for the writer.
inline void DescribePart(PersistentProperties& p, std::int32_t partId, const std::wstring& name,
                         const std::vector<Style>& styles, bool support = false, bool volume = false)
{
    p.SetValue(L"PartID", partId);
    p.SetValue(L"PartName", name);
    p.SetValue(L"IsSupport", support);
    p.SetValue(L"IsVolumeSupport", volume);
    Indexed list;
    for (const Style& s : styles)
        AddStyle(list, s, support || volume);
    p.SetValue(L"SLMBuildStyles", list);
}

inline M2DSliceVectorBlock* AddBlock(M2DSlice& slice, e2DSliceVectorType type, int style, int model,
                                     const std::vector<M2DSliceVector>& vectors)
{
    M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    M2DSliceVectorTypeInfo label(type);
    label.SetIndex(e2DSliceVectorTypeIndex_Parameter, style);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, model);
    block->SetTypeInfo(label);
    block->Vectors = vectors;
    return block;
}

inline std::shared_ptr<M2DSliceStack> StackOf(std::vector<M2DSlice> slices, std::int32_t thickness)
{
    auto stack = std::make_shared<M2DSliceStack>();
    stack->SetSliceThickness(thickness);
    for (M2DSlice& s : slices)
        stack->AddSlice(s, false);
    return stack;
}

inline M2DSlice SliceAt(std::int32_t z)
{
    M2DSlice slice;
    slice.SetZ(z);
    return slice;
}

// Writes the sources with a sectioned writer of the given code through M2DSliceContainerIO in
// millimetres; the bytes, or empty with the reason in the test log.
template <class IO>
std::string WriteSectioned(const std::vector<const ISource2DSlices*>& sources, const std::string& path, short code,
                           const std::function<void(IO&)>& prepare, bool compressed)
{
    auto io = std::make_shared<IO>(compressed);
    io->SetFileType(code);
    if (prepare)
        prepare(*io);
    std::shared_ptr<I2DSliceIO> base = io;
    M2DSliceContainerIO out(base);
    if (!out.WriteContainers(sources, ts::Wide(path), 10000, 1, nullptr))
    {
        ADD_FAILURE() << "write failed: " << io->GetFailureReason();
        return {};
    }
    return ts::ReadFile(path);
}

inline std::string WriteSlm(const std::vector<const ISource2DSlices*>& sources, const std::string& path,
                            const std::function<void(M2DSliceIO_slm&)>& prepare = nullptr)
{
    return WriteSectioned<M2DSliceIO_slm>(sources, path, 47, prepare, false);
}

inline std::unique_ptr<M2DSliceStack> ReadSlm(const std::string& path, bool merge = false)
{
    auto stack = std::make_unique<M2DSliceStack>();
    M2DSliceContainerIO in(47);
    I2DSliceIO::ReadOptions options;
    options.VectorBlocks.MergeBlocks = merge;
    in.SetReadOptions(options);
    if (!in.ReadContainer(*stack, ts::Wide(path), true, nullptr))
    {
        ADD_FAILURE() << "read failed: " << in.GetSliceIO()->GetFailureReason();
        return nullptr;
    }
    return stack;
}

inline std::uint32_t Crc(const std::string& bytes, std::size_t n)
{
    return static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(n)));
}

// An LF number of the minimal form, as a byte string.
inline std::string LF(std::uint64_t v)
{
    unsigned char b[8];
    const int n = Sectioned::EncodeLF(v, b, 8, false);
    return std::string(reinterpret_cast<char*>(b), static_cast<std::size_t>(n));
}

// The seek table's offset as section 4 holds it.
inline std::int64_t SeekTableOffset(const std::string& file, std::size_t pointerAt)
{
    std::int64_t v = 0;
    ByteCursor c(file.data() + pointerAt, 8);
    Sectioned::DecodeLF(c, v);
    return v;
}

} // namespace slmtest
