// The slice data model: pooled contours, block lists with their spare, slices and labels.
#include <map>

#include "contracts/M2DSlice.h"
#include "tests/TestSupport.h"

namespace {

using ts::AddContour;
using ts::Points;

// Reads the points forwards and checks that the backward links mirror them.
Points Read(const M2DSliceContour& c)
{
    Points backward;
    const M2DSliceContourPoint* p = c.GetFirstPoint();
    for (std::uint32_t i = 0; i < c.GetNumPoints(); ++i)
    {
        p = p->GetPreviousPoint();
        backward.emplace(backward.begin(), p->x, p->y);
    }
    EXPECT_EQ(ts::PointsOf(c), backward) << "previous links disagree with next links";
    return backward;
}

} // namespace

TEST(M2DSliceContourLayer, PointsFormARingAndContoursAList)
{
    M2DSliceContourLayer border;
    M2DSliceContour* c = AddContour(border, {{0, 0}, {10, 0}, {10, 10}, {0, 10}});
    // Removing the first point moves the start; removing the last closes the ring again.
    c->RemovePoint(c->GetFirstPoint());
    c->RemovePoint(c->GetLastPoint());
    EXPECT_EQ(Read(*c), (Points{{10, 0}, {10, 10}}));
    c->RemovePoint(c->GetFirstPoint());
    c->RemovePoint(c->GetFirstPoint());
    EXPECT_TRUE(c->GetFirstPoint() == nullptr && c->begin() == c->end());
    // Growing over several pool chunks keeps every point in place.
    Points many;
    for (int i = 0; i < 5000; ++i)
        many.emplace_back(i, -i);
    EXPECT_EQ(Read(*AddContour(border, many)), many);

    M2DSliceContour* b = AddContour(border, {{5, 5}, {6, 6}}, false);
    M2DSliceContour* last = AddContour(border, {{9, 9}});
    b->SetIsOuterContour(false);
    b->GetTypeInfoUpdate().SetIndex(e2DSliceVectorTypeIndex_Part, 7);
    border.RemoveContour(b, false);
    EXPECT_TRUE(border.GetContour(1)->GetNextContour() == last && last->GetPreviousContour() == border.GetContour(1));
    // A contour added after a removal starts empty and with default attributes.
    M2DSliceContour* added = border.AddContourAtEnd();
    EXPECT_EQ(std::make_tuple(added->GetNumPoints(), added->GetIsClosed(), added->GetIsOuterContour(),
                              last->GetNextContour()),
              std::make_tuple(0u, true, true, added));
    EXPECT_EQ(added->GetTypeInfo(), M2DSliceVectorTypeInfo());
    border.RemoveContour(c, true);
    EXPECT_EQ(border.GetFirstContour()->GetPreviousContour(), nullptr);
    // A contour that is not in the layer is left alone.
    M2DSliceContourLayer other;
    border.RemoveContour(AddContour(other, {{1, 2}}), true);
    EXPECT_EQ(std::make_tuple(other.GetNumContours(), border.GetNumContours()), std::make_tuple(1u, 3u));
}

TEST(M2DSliceContourLayer, InvertReversesAndStartsAtTheOldLast)
{
    M2DSliceContourLayer border;
    // P3, P2, P1, P0, P3 inverted reads P3, P0, P1, P2, P3: the CLI reader relies on it.
    const std::pair<Points, Points> cases[] = {{{}, {}},
                                               {{{5, 6}}, {{5, 6}}},
                                               {{{1, 1}, {2, 2}}, {{2, 2}, {1, 1}}},
                                               {{{3, 3}, {2, 2}, {1, 1}, {0, 0}, {3, 3}}, {{3, 3}, {0, 0}, {1, 1}, {2, 2}, {3, 3}}}};
    for (const auto& c : cases)
    {
        M2DSliceContour* contour = AddContour(border, c.first);
        contour->Invert();
        EXPECT_EQ(Read(*contour), c.second);
    }
    // The layer's Invert also swaps the outer flags.
    border.GetContour(3)->SetIsOuterContour(true);
    border.GetContour(2)->SetIsOuterContour(false);
    border.Invert();
    EXPECT_EQ(std::make_pair(border.GetContour(3)->GetIsOuterContour(), border.GetContour(2)->GetIsOuterContour()),
              std::make_pair(false, true));
    EXPECT_EQ(Read(*border.GetContour(3)), cases[3].first);

    // A copy is deep; a move empties the source, which stays usable.
    M2DSliceContourLayer copy(border);
    copy.GetLastContour()->GetFirstPoint()->x = 99;
    EXPECT_EQ(Read(*border.GetLastContour()), cases[3].first);
    EXPECT_FALSE(copy.GetLastContour()->GetIsOuterContour());
    M2DSliceContour* first = border.GetFirstContour();
    M2DSliceContourLayer moved(std::move(border));
    EXPECT_TRUE(moved.GetFirstContour() == first && border.GetNumContours() == 0u);
    EXPECT_EQ(Read(*AddContour(border, {{2, 2}})), (Points{{2, 2}}));
}

TEST(M2DSliceBlockLayers, BlocksFormAListAndComeBackClean)
{
    M2DSliceVectorLayer layer;
    M2DSliceVectorBlock* a = layer.AddVectorBlockAtEnd();
    M2DSliceVectorBlock* b = layer.AddVectorBlockAtEnd();
    M2DSliceVectorBlock* c = layer.AddVectorBlockAtEnd();
    b->Vectors.assign(100, M2DSliceVector(1, 2, 3, 4));
    b->GetTypeInfoUpdate().SetType(e2DSliceVectorType_Hatch);
    layer.RemoveVectorBlock(b, false);
    EXPECT_EQ(a->GetNextVectorBlock(), c);
    M2DSliceVectorBlock* added = layer.AddVectorBlockAtEnd();
    EXPECT_TRUE(added->Vectors.empty() && added->GetTypeInfo() == M2DSliceVectorTypeInfo());
    EXPECT_EQ(c->GetNextVectorBlock(), added);
    layer.RemoveVectorBlock(layer.GetLastVectorBlock(), true);
    layer.RemoveVectorBlock(nullptr, false);
    EXPECT_EQ(c->GetNextVectorBlock(), nullptr);

    // One pass removal keeps order and links, and so does a copy.
    for (int i = 0; i < 4; ++i)
        layer.AddVectorBlockAtEnd()->Vectors.resize(static_cast<std::size_t>(i));
    layer.RemoveVectorBlocksIf([](const M2DSliceVectorBlock& blk) { return blk.Vectors.size() % 2 == 1; });
    ASSERT_EQ(layer.GetNumVectorBlocks(), 4u);
    EXPECT_EQ(std::make_tuple(layer.GetNumVectors(2), layer.GetNumVectors(3)), std::make_tuple(0u, 2u));
    M2DSliceVectorLayer copy(layer);
    for (const M2DSliceVectorLayer* l : {&layer, &copy})
        EXPECT_EQ(l->GetVectorBlock(2)->GetNextVectorBlock(), l->GetVectorBlock(3));
    copy.GetVectorBlock(3)->Vectors.clear();
    EXPECT_EQ(layer.GetNumVectors(3), 2u);

    // The fields lie in the order x1, x2, y1, y2, unlike the constructor's arguments.
    M2DSliceVector v(1, 2, 3, 4);
    EXPECT_EQ((std::vector<int>(&v.x1, &v.x1 + 4)), (std::vector<int>{1, 3, 2, 4}));

    // Point blocks hold their points in an array of chunks, copied deeply.
    M2DSlicePointLayer points;
    M2DSlicePointBlock* p = points.AddPointBlockAtEnd();
    for (int i = 0; i < 2500; ++i)
        p->Points.push_back(M2DSlicePoint(i, 2 * i));
    EXPECT_EQ(p->Points[1024], M2DSlicePoint(1024, 2048));
    M2DSlicePointLayer pointsCopy(points);
    auto& copied = pointsCopy.GetFirstPointBlock()->Points;
    copied[0] = M2DSlicePoint(-1, -1);
    EXPECT_EQ(p->Points[0], M2DSlicePoint(0, 0));
    // A moved-from array is empty, not a size without storage.
    MBlockArray<M2DSlicePoint, 1024> moved(std::move(copied));
    EXPECT_EQ(moved.size(), 2500u);
    EXPECT_TRUE(copied.empty() && copied.begin() == copied.end());
    // A removed point block comes back emptied as the spare.
    points.RemovePointBlock(p, false);
    EXPECT_TRUE(points.AddPointBlockAtEnd()->Points.empty());
}

TEST(M2DSlice, EmptinessAreaCopiesAndAppending)
{
    // Emptiness counts geometry, not containers; clearing keeps the height (taken's, below).
    M2DSlice slice;
    slice.SetZ(120);
    slice.GetSliceBorderUpdate()->AddContourAtEnd();
    slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    slice.GetPointsUpdate()->AddPointBlockAtEnd();
    EXPECT_TRUE(slice.IsEmpty());
    slice.GetPointsUpdate()->GetFirstPointBlock()->Points.push_back(M2DSlicePoint(1, 1));
    EXPECT_FALSE(slice.IsEmpty());
    slice.Clear();
    slice.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors.emplace_back(0, 0, 0, 0);
    EXPECT_FALSE(slice.IsEmpty());
    slice.Clear();
    slice.GetSliceBorderUpdate()->AddContourAtEnd()->InsertAtEnd(3, 3, nullptr);
    EXPECT_FALSE(slice.IsEmpty());
    slice.Clear();
    EXPECT_TRUE(slice.IsEmpty() && slice.GetXYArea(false).IsEmpty() && slice.GetXYArea(true).IsEmpty());

    // The box covers every kind of geometry.
    const Points triangle{{-5, 2}, {10, 2}, {10, 30}};
    AddContour(*slice.GetSliceBorderUpdate(), triangle);
    slice.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors.emplace_back(0, -7, 20, 0);
    slice.GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(3, 44));
    const M2DSliceXYArea measured{-5, 20, -7, 44}, widened{-100, 20, -100, 44};
    EXPECT_EQ(slice.GetXYArea(true), measured);
    // A reader widens the stored box itself and the slice is then marked known: the stored
    // box is handed out as it stands. Write access to the geometry makes it unknown again.
    slice.GetXYAreaUpdate().Extend(-100, -100);
    slice.DataKnown = true;
    EXPECT_EQ(slice.GetXYArea(true), widened);
    slice.GetVectorsUpdate();
    EXPECT_FALSE(slice.DataKnown);
    EXPECT_EQ(slice.GetXYArea(false), widened);
    EXPECT_EQ(slice.GetXYArea(true), measured);

    // A copy is deep; taking empties the source; appending adds every item.
    M2DSlice copy, taken;
    copy.CopyFrom(slice, false);
    copy.GetSliceBorderUpdate()->GetFirstContour()->GetFirstPoint()->x = 50;
    copy.GetVectorsUpdate()->GetFirstVectorBlock()->Vectors.clear();
    EXPECT_EQ(ts::PointsOf(*slice.GetSliceBorder()->GetFirstContour()), triangle);
    EXPECT_EQ(slice.GetVectors()->GetTotalNumVectors(), 1u);
    taken.CopyFrom(slice, true);
    EXPECT_TRUE(taken.GetZ() == 120 && slice.IsEmpty());
    M2DSlice plain = taken; // plain copy construction is deep as well
    plain.AppendFrom(taken);
    EXPECT_EQ(std::make_tuple(plain.GetSliceBorder()->GetNumContours(), plain.GetVectors()->GetNumVectorBlocks(),
                              plain.GetPoints()->GetTotalNumPoints(), taken.GetSliceBorder()->GetNumContours()),
              std::make_tuple(2u, 2u, 2u, 1u));
    EXPECT_EQ(Read(*plain.GetSliceBorder()->GetLastContour()), triangle);
}

// ---------------------------------------------------------------- labels

namespace {

// Keeps one written element and hands it back to a reader.
struct Element : ZanSAX::ISAXWriter, ZanSAX::ISAXReader
{
    bool WriteStartTag(const char* name) override
    {
        Tag = name;
        return true;
    }
    bool WriteAttribute(const char* name, const std::string& value) override
    {
        Attributes[name] = value;
        return true;
    }
    bool WriteEndTag(const char*) override { return true; }
    const std::string& GetTagName() const override { return Tag; }
    bool GetAttribute(const char* name, std::string& value) const override
    {
        const bool found = Attributes.count(name) > 0;
        value = found ? Attributes.at(name) : value;
        return found;
    }
    std::string Tag;
    std::map<std::string, std::string> Attributes;
};

} // namespace

TEST(M2DSliceVectorTypeInfo, TagsCompareAndPersistThroughSax)
{
    M2DSliceVectorTypeInfo a(e2DSliceVectorType_Hatch);
    M2DSliceVectorTypeInfo b = e2DSliceVectorType_Hatch;
    a.SetFlag(e2DSliceVectorTypeFlag_3, true);
    a.SetIndex(e2DSliceVectorTypeIndex_Part, -1);
    a.SetNumber(e2DSliceVectorTypeNumber_2, 0.25);
    EXPECT_NE(a, b);
    // Tags set in another order compare equal; setting the unset value removes a tag.
    b.SetNumber(2, 0.25);
    b.SetIndex(2, -1);
    b.SetFlag(3, true);
    EXPECT_EQ(a, b);
    a.SetFlag(3, false);
    a.SetIndex(2, 0);
    a.SetNumber(2, 0.0);
    EXPECT_EQ(a, M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
    b = e2DSliceVectorType_Hatch; // assigning a kind resets the tags
    EXPECT_EQ(a, b);
    // Tags added by name get ids of their own, apart from the fixed ones.
    const int flag = M2DSliceVectorTypeInfo::GetFlagID(L"SliceTest.Flag");
    EXPECT_EQ(M2DSliceVectorTypeInfo::GetFlagID(L"SliceTest.Flag"), flag);
    EXPECT_GE(flag, e2DSliceVectorTypeFlag_Count);

    M2DSliceVectorTypeInfo info(e2DSliceVectorType_VectorGroup7), back;
    info.SetFlag(e2DSliceVectorTypeFlag_1, true);
    info.SetFlag(flag, true);
    info.SetIndex(e2DSliceVectorTypeIndex_Parameter, 19);
    info.SetIndex(e2DSliceVectorTypeIndex_Nozzle, -3);
    info.SetNumber(e2DSliceVectorTypeNumber_1, 0.1);
    Element xml, other, broken;
    other.Tag = "Something";
    broken.Tag = "VectorType";
    broken.Attributes = {{"type", "6"}, {"indexes", "2"}};
    ASSERT_TRUE(info.Write(xml) && back.HandleTag(xml));
    EXPECT_EQ(back, info);
    EXPECT_FALSE(back.HandleTag(other) || back.HandleTag(broken));
    EXPECT_EQ(back, info); // refused input leaves the label unchanged
}
