// The tool's splitting of a build into parts and its general settings, tested on the
// tool's own sources: parts by label index with their properties, empty layers, closing
// repeats, contours as vectors, layer ranges, and "parts" / "labels" settings.
#include <gtest/gtest.h>

#include "contracts/M2DSliceBuildParameters.h"
#include "contracts/M2DSliceStack.h"

// The tool is an executable of its own; these sources are compiled into the tests here.
#include "tools/sliceio/Common.cpp"
#include "tools/sliceio/FormatHooks.cpp"
#include "tools/sliceio/Parts.cpp"
#include "tools/sliceio/Settings.cpp"

namespace {

M2DSliceVectorTypeInfo Label(e2DSliceVectorType type, int part)
{
    M2DSliceVectorTypeInfo label(type);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, part);
    return label;
}

void AddSquare(M2DSlice& slice, int part, bool repeatAtEnd, bool repeatAtStart)
{
    M2DSliceContour* c = slice.GetSliceBorderUpdate()->AddContourAtEnd();
    c->SetTypeInfo(Label(e2DSliceVectorType_Border, part));
    c->SetIsClosed(true);
    if (repeatAtStart)
        c->InsertAtEnd(0, 10, nullptr);
    for (auto [x, y] : std::vector<std::pair<int, int>>{{0, 0}, {10, 0}, {10, 10}, {0, 10}})
        c->InsertAtEnd(x, y, nullptr);
    if (repeatAtEnd)
        c->InsertAtEnd(0, 0, nullptr);
}

// Three layers: parts 0 and 2 in the first (squares with a closing repeat, a hatch block of
// part 2), nothing in the second, a point block of part 0 in the third.
M2DSliceStack Build(bool repeatAtStart = false)
{
    M2DSliceStack stack;
    M2DSlice slice;
    slice.SetZ(100);
    AddSquare(slice, 0, !repeatAtStart, repeatAtStart);
    AddSquare(slice, 2, !repeatAtStart, repeatAtStart);
    M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    block->SetTypeInfo(Label(e2DSliceVectorType_Hatch, 2));
    block->Vectors.emplace_back(1, 1, 9, 1);
    stack.AddSlice(slice, false);
    M2DSlice empty;
    empty.SetZ(200);
    stack.AddSlice(empty, false);
    M2DSlice points;
    points.SetZ(300);
    M2DSlicePointBlock* p = points.GetPointsUpdate()->AddPointBlockAtEnd();
    p->SetTypeInfo(Label(e2DSliceVectorType_Kind5, 0));
    p->Points.push_back(M2DSlicePoint(5, 5));
    stack.AddSlice(points, false);
    return stack;
}

std::vector<std::pair<int, int>> PointsOf(const M2DSliceContour& c)
{
    std::vector<std::pair<int, int>> out;
    for (const auto& p : c)
        out.emplace_back(p.x, p.y);
    return out;
}

std::wstring Text(const PersistentProperties& p, const wchar_t* name)
{
    const auto* v = p.GetPropertyOfType<std::wstring>(name);
    return v ? v->GetValue() : L"<none>";
}

} // namespace

TEST(ToolParts, SplitByPartIndexWithDeclaredProperties)
{
    const M2DSliceStack stack = Build();
    std::map<std::int32_t, nlohmann::json> declared;
    declared[2] = {{"PartName", "lid"}, {"IsSupport", true}};
    sliceio::SplitCounts counts;
    const auto parts = sliceio::SplitIntoParts(stack, declared, sliceio::SplitOptions(), counts);
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(counts.Layers, 3u);
    EXPECT_EQ(counts.ClosingRepeatsStripped, 2u);

    // Every part holds every layer, at the layer's height, empty where it has nothing.
    for (const auto& part : parts)
    {
        ASSERT_EQ(part->GetNumSlices(), 3u);
        for (std::uint64_t i = 0; i < 3; ++i)
            EXPECT_EQ(part->GetSliceZPosition(i), static_cast<int>(100 * (i + 1)));
        EXPECT_TRUE(part->GetSlice(1)->IsEmpty());
    }
    const sliceio::PartSource& first = *parts[0];
    const sliceio::PartSource& lid = *parts[1];
    EXPECT_EQ(first.GetPart(), 0);
    EXPECT_EQ(lid.GetPart(), 2);
    EXPECT_EQ(first.GetProperties()->GetPropertyOfType<std::int32_t>(L"PartID")->GetValue(), 0);
    EXPECT_EQ(lid.GetProperties()->GetPropertyOfType<std::int32_t>(L"PartID")->GetValue(), 2);
    EXPECT_EQ(Text(*first.GetProperties(), L"PartName"), L"part1");
    EXPECT_EQ(Text(*lid.GetProperties(), L"PartName"), L"lid");
    EXPECT_TRUE(lid.GetProperties()->GetPropertyOfType<bool>(L"IsSupport")->GetValue());

    // Part 0: its square without the repeat, and its points in the third layer.
    const M2DSlice& a = *first.GetSlice(0);
    ASSERT_EQ(a.GetSliceBorder()->GetNumContours(), 1u);
    EXPECT_EQ(PointsOf(*a.GetSliceBorder()->GetContour(0)),
              (std::vector<std::pair<int, int>>{{0, 0}, {10, 0}, {10, 10}, {0, 10}}));
    EXPECT_EQ(a.GetVectors()->GetNumVectorBlocks(), 0u);
    EXPECT_EQ(first.GetSlice(2)->GetPoints()->GetTotalNumPoints(), 1u);
    // Part 2: its square and its hatch block, with its label.
    const M2DSlice& b = *lid.GetSlice(0);
    EXPECT_EQ(b.GetSliceBorder()->GetNumContours(), 1u);
    ASSERT_EQ(b.GetVectors()->GetNumVectorBlocks(), 1u);
    EXPECT_EQ(b.GetVectors()->GetVectorBlock(0)->GetTypeInfo(), Label(e2DSliceVectorType_Hatch, 2));
    EXPECT_TRUE(lid.GetSlice(2)->IsEmpty());
}

TEST(ToolParts, RepeatsRangesEmptyLayersAndContoursAsVectors)
{
    // A repeat that leads (as the CLI reader gives it) is dropped from the front.
    {
        sliceio::SplitOptions options;
        options.RepeatLeads = true;
        sliceio::SplitCounts counts;
        const auto parts = sliceio::SplitIntoParts(Build(true), {}, options, counts);
        EXPECT_EQ(PointsOf(*parts[0]->GetSlice(0)->GetSliceBorder()->GetContour(0)),
                  (std::vector<std::pair<int, int>>{{0, 0}, {10, 0}, {10, 10}, {0, 10}}));
    }
    {
        sliceio::SplitOptions options;
        options.DropEmptyLayers = true;
        sliceio::SplitCounts counts;
        const auto parts = sliceio::SplitIntoParts(Build(), {}, options, counts);
        EXPECT_EQ(counts.Layers, 2u);
        EXPECT_EQ(counts.EmptyLayersDropped, 1u);
        EXPECT_EQ(parts[0]->GetSliceZPosition(1), 300);
    }
    {
        sliceio::SplitOptions options;
        options.FirstLayer = options.LastLayer = 2;
        sliceio::SplitCounts counts;
        const auto parts = sliceio::SplitIntoParts(Build(), {}, options, counts);
        ASSERT_EQ(parts.size(), 1u); // only part 0 has anything in that layer
        EXPECT_EQ(parts[0]->GetNumSlices(), 1u);
        EXPECT_EQ(parts[0]->GetSliceZPosition(0), 300);
    }
    {
        // A closed square of 4 corners gives 4 vectors of the contour's label.
        sliceio::SplitOptions options;
        options.ContoursAsVectors = true;
        sliceio::SplitCounts counts;
        const auto parts = sliceio::SplitIntoParts(Build(), {}, options, counts);
        EXPECT_EQ(counts.ContoursTurnedToVectors, 2u);
        const M2DSlice& a = *parts[0]->GetSlice(0);
        EXPECT_EQ(a.GetSliceBorder()->GetNumContours(), 0u);
        ASSERT_EQ(a.GetVectors()->GetNumVectorBlocks(), 1u);
        EXPECT_EQ(a.GetVectors()->GetVectorBlock(0)->Vectors.size(), 4u);
        EXPECT_EQ(a.GetVectors()->GetVectorBlock(0)->GetTypeInfo(), Label(e2DSliceVectorType_Border, 0));
    }
    {
        // Without any geometry there is still one part, so that the layers are written.
        M2DSliceStack stack;
        M2DSlice empty;
        empty.SetZ(50);
        stack.AddSlice(empty, false);
        sliceio::SplitCounts counts;
        const auto parts = sliceio::SplitIntoParts(stack, {}, sliceio::SplitOptions(), counts);
        ASSERT_EQ(parts.size(), 1u);
        EXPECT_EQ(parts[0]->GetNumSlices(), 1u);
    }
}

TEST(ToolParts, GeneralSettingsGoOnPartsAndLabels)
{
    sliceio::SplitCounts counts;
    std::map<std::int32_t, nlohmann::json> declared;
    declared[2]["PartName"] = "lid";
    const auto parts = sliceio::SplitIntoParts(Build(), declared, sliceio::SplitOptions(), counts);
    const nlohmann::json settings = nlohmann::json::parse(R"({
        "parts": {"*": {"IsSupport": false, "Speed": 1.5}, "2": {"IsSupport": true},
                  "lid": {"M2DSliceBuildParameters": [{"ID": 7, "Name": "skin", "Speed": 800, "LaserPower": 200}]}},
        "labels": {"Hatch": {"Parameter": 3, "LaserSpeed": 900}, "*": {"Parameter": 9}}})");
    sliceio::ApplyGeneralSettings(settings, {parts[0].get(), parts[1].get()});

    // Least specific first: "*", then the id, then the name.
    EXPECT_FALSE(parts[0]->Properties().GetPropertyOfType<bool>(L"IsSupport")->GetValue());
    EXPECT_TRUE(parts[1]->Properties().GetPropertyOfType<bool>(L"IsSupport")->GetValue());
    EXPECT_EQ(parts[0]->Properties().GetPropertyOfType<double>(L"Speed")->GetValue(), 1.5);
    EXPECT_EQ(M2DSliceBuildParameters::Get(&parts[0]->Properties(), false), nullptr);
    const M2DSliceBuildParameters* styles = M2DSliceBuildParameters::Get(&parts[1]->Properties(), false);
    ASSERT_NE(styles, nullptr);
    ASSERT_EQ(styles->GetNumInstances(), 1u);
    EXPECT_EQ(styles->GetInstance(0).GetID(), 7);
    EXPECT_EQ(styles->GetInstance(0).GetName(), L"skin");
    EXPECT_EQ(styles->GetInstance(0).GetSpeed(), 800.0);
    EXPECT_EQ(styles->GetInstance(0).GetLaserPower(), 200.0);

    // The hatch block gets the Hatch tags (the type's own entry first), contours the "*" ones.
    const M2DSliceVectorTypeInfo& hatch = parts[1]->GetSlice(0)->GetVectors()->GetVectorBlock(0)->GetTypeInfo();
    EXPECT_EQ(hatch.GetIndex(e2DSliceVectorTypeIndex_Parameter), 3);
    EXPECT_EQ(hatch.GetNumber(M2DSliceVectorTypeInfo::GetNumberID(L"LaserSpeed")), 900.0);
    EXPECT_EQ(hatch.GetIndex(e2DSliceVectorTypeIndex_Part), 2);
    const M2DSliceVectorTypeInfo& border = parts[0]->GetSlice(0)->GetSliceBorder()->GetContour(0)->GetTypeInfo();
    EXPECT_EQ(border.GetIndex(e2DSliceVectorTypeIndex_Parameter), 9);
    EXPECT_EQ(border.GetNumber(M2DSliceVectorTypeInfo::GetNumberID(L"LaserSpeed")), 0.0);

    // A value of another kind is refused with its key.
    const nlohmann::json wrong = nlohmann::json::parse(R"({"parts": {"*": {"IsSupport": [1]}}})");
    try
    {
        sliceio::ApplyGeneralSettings(wrong, {parts[0].get()});
        ADD_FAILURE() << "no failure";
    }
    catch (const sliceio::Failure& e)
    {
        EXPECT_NE(std::string(e.what()).find("\"IsSupport\""), std::string::npos) << e.what();
    }
}
