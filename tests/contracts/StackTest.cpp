// M2DSliceStack as target and source, with a lazily read initial source, and
// M2DSliceTempFile as the backing file of such a source.
#include "contracts/M2DSliceStack.h"
#include "contracts/MFile.h"
#include "tests/TestSupport.h"

namespace {

// An initial source that makes its slices on demand and counts the requests.
class LazySource : public ISource2DSlices
{
public:
    explicit LazySource(std::vector<std::int32_t> heights) : Heights(std::move(heights)) {}
    std::vector<std::int32_t> Heights;
    MSliceFileParameters Parameters;
    M2DSliceIOParameters IO;
    mutable int Reads = 0;

protected:
    std::uint64_t _OnGetNumSlices() const override { return Heights.size(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override { return M2DSliceZArea(Heights[i]); }
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override { return M2DSliceXYArea{0, static_cast<int>(i), 0, 1}; }
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override
    {
        ++Reads;
        slice.Clear();
        slice.SetZ(Heights[i]);
        slice.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors.emplace_back(0, 0, static_cast<int>(i), 1);
    }
    const MSliceFileParameters* _OnGetSliceParameters() const override { return &Parameters; }
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override { return &IO; }
};

} // namespace

TEST(M2DSliceStack, AddedSlicesAreTakenOrCopiedAndAnInitialSourceReadOnDemand)
{
    M2DSliceStack stack;
    EXPECT_EQ(stack.GetSliceThickness(), 0);
    M2DSlice first = ts::MakeSquareSlice(100, 0, 0, 10, 0);
    M2DSlice* stored = stack.AddSlice(first, true);
    EXPECT_TRUE(first.IsEmpty() && stack.GetSlice(0).get() == stored);
    EXPECT_EQ(stored->GetSliceBorder()->GetTotalNumPoints(), 4u);

    M2DSlice second = ts::MakeSquareSlice(130, 0, 0, 20, 0);
    stack.AddSlice(second, false);
    second.GetSliceBorderUpdate()->GetFirstContour()->GetFirstPoint()->x = -1;
    EXPECT_EQ(std::make_pair(stack.GetXYArea(1), stack.GetXYArea()),
              std::make_pair(M2DSliceXYArea{0, 20, 0, 20}, M2DSliceXYArea{0, 20, 0, 20}));
    EXPECT_EQ(std::make_pair(stack.GetSliceZPosition(1), stack.GetSliceThickness()), std::make_pair(130, 30));
    M2DSlice filled;
    stack.GetSlice(filled, 0);
    ts::ExpectSameSlice(*stored, filled);

    stack.GetProperties()->SetValue<std::int32_t>(L"Filled", 1);
    auto lazy = std::make_shared<LazySource>(std::vector<std::int32_t>{0, 50, 100});
    lazy->Parameters.LayerThickness = 50;
    lazy->IO.HatchDistanceX = 12;
    stack.InitFromSourceSlices(lazy);
    EXPECT_EQ(stack.GetInitialSource(), lazy);
    // The initial slices replace what was there; the properties stay. Heights and boxes
    // come from the source's table, without reading slices.
    std::int32_t value = 0;
    EXPECT_TRUE(stack.GetProperties()->GetValue(L"Filled", value));
    EXPECT_EQ(std::make_tuple(stack.GetNumSlices(), stack.GetSliceParameters()->LayerThickness,
                              stack.GetSliceIOParameters()->HatchDistanceX, stack.GetSliceThickness(),
                              stack.GetSliceZPosition(2)),
              std::make_tuple(3u, 50, 12, 50, 100));
    EXPECT_TRUE(stack.GetXYArea(2) == (M2DSliceXYArea{0, 2, 0, 1}) && lazy->Reads == 0);

    M2DSlice later = ts::MakeSquareSlice(150, 0, 0, 3, 0);
    stack.AddSlice(later, true);
    EXPECT_EQ(stack.GetSliceZPosition(3), 150);
    // Only the initial slices are read from the source, each when asked for.
    auto s1 = stack.GetSlice(1);
    EXPECT_EQ(std::make_tuple(lazy->Reads, s1->GetZ(), s1->GetVectors()->GetTotalNumVectors()),
              std::make_tuple(1, 50, std::uint64_t{1}));
    stack.GetSlice(filled, 3);
    EXPECT_TRUE(lazy->Reads == 1 && filled.GetSliceBorder()->GetTotalNumPoints() == 4u) << lazy->Reads;
    stack.GetSlice(filled, 0);
    EXPECT_TRUE(lazy->Reads == 2 && filled.GetSliceBorder()->GetNumContours() == 0u) << lazy->Reads;

    // Out of range: an empty slice, no failure. Clearing drops the source, not the properties.
    EXPECT_TRUE(stack.GetSlice(9)->IsEmpty() && stack.GetSliceZPosition(9) == M2DSLICE_UNSET);
    stack.Clear();
    EXPECT_TRUE(stack.GetNumSlices() == 0u && stack.GetInitialSource() == nullptr);
    EXPECT_EQ(stack.GetProperties()->GetNumProperties(), 1u);
}

TEST(M2DSliceTempFile, OpensSeeksAndRemoves)
{
    ts::ScratchDir dir;
    const std::wstring path = dir.WFile("a"), other = dir.WFile("b");
    ts::WriteFile(dir.File("a"), "0123456789");
    ts::WriteFile(dir.File("b"), "x");
    MFile file;
    {
        M2DSliceTempFile temp(&file, path);
        // Once open, offset 0 leaves the position alone and others seek.
        for (const auto& [offset, next] : {std::pair{4, '4'}, {0, '5'}, {8, '8'}})
            EXPECT_TRUE(temp.InitForReading(offset) && file.GETC() == next) << offset;
    }
    EXPECT_TRUE(std::filesystem::exists(dir.File("a"))) << "kept unless asked to remove";

    // Removal closes the file when it is open on that path, and only then.
    M2DSliceTempFile(&file, other).SetRemoveAtEnd(true);
    EXPECT_TRUE(file.IS_OPEN() && !std::filesystem::exists(dir.File("b")));
    M2DSliceTempFile(&file, path).SetRemoveAtEnd(true);
    EXPECT_FALSE(file.IS_OPEN() || std::filesystem::exists(dir.File("a")));
    EXPECT_FALSE(M2DSliceTempFile(&file, path).InitForReading(0) || M2DSliceTempFile(nullptr, path).InitForReading(0));
}
