// Sources: the defaults of ISource2DSlices and the joining of sources by M2DSliceSourceVector.
#include <memory>
#include <vector>

#include "contracts/M2DSliceSource.h"
#include "contracts/PersistentProperties.h"
#include "tests/TestSupport.h"

namespace {

// A source over slices in memory that counts how often a slice is handed out. Each slice
// holds one point (tag, z), so that tests can tell whose slice they got.
class ListSource : public ISource2DSlices
{
public:
    ListSource(const std::vector<std::int32_t>& heights, int tag)
    {
        for (std::int32_t z : heights)
        {
            auto slice = std::make_shared<M2DSlice>();
            slice->SetZ(z);
            slice->GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(tag, z));
            Slices.push_back(slice);
        }
    }
    std::vector<std::shared_ptr<M2DSlice>> Slices;
    M2DSliceIOParameters IO;
    MSliceFileParameters Parameters;
    PersistentProperties Properties;
    mutable int Loads = 0;

protected:
    std::uint64_t _OnGetNumSlices() const override { return Slices.size(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override { return M2DSliceZArea(Slices[i]->GetZ()); }
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override
    {
        ++Loads;
        return Slices[i];
    }
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override { return &IO; }
    const MSliceFileParameters* _OnGetSliceParameters() const override { return &Parameters; }
    const PersistentProperties* _OnGetProperties() const override { return &Properties; }
};

// A source that only knows how to fill a slice, as a lazily reading source does.
class FillingSource : public ISource2DSlices
{
protected:
    std::uint64_t _OnGetNumSlices() const override { return 3; }
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override
    {
        slice.Clear();
        slice.SetZ(static_cast<std::int32_t>(100 * (i + 1)));
        slice.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors.emplace_back(0, 0, static_cast<int>(i), 1);
    }
};

std::vector<std::int32_t> Heights(const ISource2DSlices& source)
{
    std::vector<std::int32_t> z;
    for (std::uint64_t i = 0; i < source.GetNumSlices(); ++i)
        z.push_back(source.GetSliceZPosition(i));
    return z;
}

// The kinds of the items of a layer, 'c'ontour, 'v'ector block or 'p'oint block.
std::string Kinds(const ISource2DSlices& source, std::uint64_t layer)
{
    M2DSliceConstDataItems items;
    items.Items.emplace_back(); // stale content goes
    source.GetSliceItems(items, layer);
    std::string kinds;
    for (const M2DSliceConstDataItem& item : items.Items)
        kinds += item.GetContour() ? 'c' : item.GetVectorBlock() ? 'v' : item.GetPointBlock() ? 'p' : '?';
    return kinds;
}

} // namespace

TEST(ISource2DSlices, DefaultsDeriveFromTheSlices)
{
    EXPECT_EQ(ListSource({7}, 1).GetSliceThickness(), 0);
    ListSource source({40, 70, 100}, 1);
    EXPECT_EQ(source.GetSliceThickness(), 30);
    source.Slices[1]->GetPointsUpdate()->GetFirstPointBlock()->Points.push_back(M2DSlicePoint(-5, 500));
    EXPECT_EQ(source.GetXYArea(1), (M2DSliceXYArea{-5, 1, 70, 500}));
    EXPECT_EQ(source.GetXYArea(), (M2DSliceXYArea{-5, 1, 40, 500}));
    EXPECT_EQ(source.GetSize(), source.Slices[0]->GetMemorySize() + source.Slices[1]->GetMemorySize() +
                                    source.Slices[2]->GetMemorySize());

    // The filling form copies the shared slice: changing the copy leaves the source alone.
    M2DSlice copy;
    source.GetSlice(copy, 2);
    EXPECT_EQ(copy.GetZ(), 100);
    copy.GetPointsUpdate()->GetFirstPointBlock()->Points[0].x = 9;
    EXPECT_EQ(source.Slices[2]->GetPoints()->GetFirstPointBlock()->Points[0].x, 1);

    // And the shared form falls back to the filling form.
    FillingSource lazy;
    EXPECT_EQ(std::make_pair(lazy.GetSlice(1)->GetZ(), lazy.GetSliceZPosition(2)), std::make_pair(200, 300));
    EXPECT_EQ(lazy.GetXYArea(), (M2DSliceXYArea{0, 2, 0, 1}));
    EXPECT_TRUE(lazy.GetSliceIOParameters()->BordersFirst && lazy.GetProperties() == nullptr);
}

TEST(M2DSliceSourceVector, JoinByHeightTakesEveryHeightInRisingOrder)
{
    ListSource a({0, 10, 20}, 1);
    ListSource b({30, 10, 10}, 2); // heights need not be sorted, and may repeat
    M2DSliceSourceVector sv;
    sv.GetOptions().JoinByHeight = true;
    sv.SetVector({&a, nullptr, &b});
    EXPECT_EQ(a.Loads + b.Loads, 0) << "building the table must not load slices";
    EXPECT_EQ(sv.GetSources().size(), 2u);
    EXPECT_EQ(Heights(sv), (std::vector<std::int32_t>{0, 10, 10, 20, 30}));

    // One slice per source and layer; a source without the height gives an empty slice
    // at the layer's height. A repeated height fills one layer per repetition.
    std::vector<std::shared_ptr<const M2DSlice>> slices;
    for (std::uint64_t i = 0; i < sv.GetNumSlices(); ++i)
        sv.GetSlices(slices, i);
    ASSERT_EQ(slices.size(), 10u);
    const std::vector<std::shared_ptr<const M2DSlice>> expected{a.Slices[0], nullptr,     a.Slices[1], b.Slices[1],
                                                                nullptr,     b.Slices[2], a.Slices[2], nullptr,
                                                                nullptr,     b.Slices[0]};
    for (std::size_t k = 0; k < slices.size(); ++k)
        EXPECT_TRUE(expected[k] ? slices[k] == expected[k]
                                : slices[k]->IsEmpty() && slices[k]->GetZ() == sv.GetSliceZPosition(k / 2))
            << k;
    M2DSliceConstDataItems items;
    sv.GetSliceItems(items, 4);
    ASSERT_EQ(std::make_pair(items.Slices.size(), items.Items.size()), std::make_pair(std::size_t{2}, std::size_t{1}));
    EXPECT_EQ(items.Items[0].GetPointBlock(), b.Slices[0]->GetPoints()->GetFirstPointBlock());

    // The joined slice holds every source's items, and the boxes join too.
    auto joined = sv.GetSlice(1);
    const M2DSlicePointLayer& points = *joined->GetPoints();
    ASSERT_EQ(std::make_pair(joined->GetZ(), points.GetNumPointBlocks()), std::make_pair(10, std::size_t{2}));
    EXPECT_EQ(std::make_pair(points.GetPointBlock(0)->Points[0], points.GetPointBlock(1)->Points[0]),
              std::make_pair(M2DSlicePoint(1, 10), M2DSlicePoint(2, 10)));
    EXPECT_EQ(sv.GetXYArea(1), (M2DSliceXYArea{1, 2, 10, 10}));
    EXPECT_EQ(sv.GetXYArea(), (M2DSliceXYArea{1, 2, 0, 30}));
}

TEST(M2DSliceSourceVector, JoinByIndexPadsShorterSourcesAndTheFirstGivesParameters)
{
    ListSource a({0, 10, 20}, 1);
    ListSource b({5, 15}, 2);
    M2DSliceSourceVector sv;
    sv.SetVector({&b, &a});
    EXPECT_EQ(Heights(sv), (std::vector<std::int32_t>{5, 15, 20}));
    M2DSliceConstDataItems items;
    sv.GetSliceItems(items, 2);
    ASSERT_EQ(items.Slices.size(), 2u);
    EXPECT_TRUE(items.Slices[0]->IsEmpty() && items.Slices[0]->GetZ() == 20);
    EXPECT_EQ(items.Slices[1], a.Slices[2]);
    // Asking past the end gives empty slices, one per source, rather than failing.
    sv.GetSliceItems(items, 3);
    EXPECT_TRUE(items.Slices.size() == 2u && items.Items.empty());

    // One source hands out its own slice; a filling source fills directly.
    M2DSliceSourceVector single;
    single.SetVector({&b});
    EXPECT_EQ(single.GetSlice(0), b.Slices[0]);
    FillingSource lazy;
    single.SetVector({&lazy});
    M2DSlice filled;
    single.GetSlice(filled, 2);
    EXPECT_EQ(filled.GetZ(), 300);
    EXPECT_EQ(filled.GetVectors()->GetTotalNumVectors(), 1u);

    // The first source that is not null gives the parameters.
    a.IO.BordersFirst = false;
    sv.SetVector({nullptr, &a, &b});
    EXPECT_EQ(std::make_tuple(sv.GetSliceIOParameters(), sv.GetSliceParameters(), sv.GetProperties()),
              std::make_tuple(&a.IO, &a.Parameters, &a.Properties));
    EXPECT_EQ(sv.GetSliceThickness(), 10);
    // Each source keeps its own order: contours, vectors, points by default; a puts vectors first.
    for (ListSource* s : {&a, &b})
    {
        s->Slices[0]->GetSliceBorderUpdate()->AddContourAtEnd();
        s->Slices[0]->GetVectorsUpdate()->AddVectorBlockAtEnd();
    }
    EXPECT_EQ(Kinds(b, 0), "cvp");
    EXPECT_EQ(Kinds(a, 0), "vcp");
    EXPECT_EQ(Kinds(sv, 0), "vcpcvp");
    single.SetVector({nullptr});
    EXPECT_TRUE(single.GetNumSlices() == 0u && single.GetProperties() == nullptr);
    EXPECT_TRUE(single.GetSliceIOParameters()->BordersFirst);
}
