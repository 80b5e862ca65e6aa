// The library in a few lines: build a stack of layers, save it as a binary CLI file, load it
// back lazily and print what each layer measures.
//
//   build/write_and_read [OUT.cli]
#include <cstdio>
#include <string>

#include "contracts/M2DSliceStack.h"
#include "contracts/StringConversion.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"

int main(int argc, char** argv)
{
    const std::wstring path = StringConversion::Utf8ToNative(argc > 1 ? argv[1] : "write_and_read.cli");
    const int mm = MUnit::GetIE();

    // Ten layers 0.05 mm apart, each a 20 mm square with a 10 mm hole and two hatch lines.
    // Outer contours run so that the sum of (y1 + y2) * (x2 - x1) is positive (clockwise with
    // y up), holes the other way.
    M2DSliceStack stack;
    for (int i = 0; i < 10; ++i)
    {
        M2DSlice slice;
        slice.SetZ((i + 1) * mm / 20);
        M2DSliceContourLayer* border = slice.GetSliceBorderUpdate();
        M2DSliceContour* outer = border->AddContourAtEnd();
        for (auto [x, y] : {std::pair{0, 0}, {0, 20}, {20, 20}, {20, 0}})
            outer->InsertAtEnd(x * mm, y * mm, nullptr);
        M2DSliceContour* hole = border->AddContourAtEnd();
        for (auto [x, y] : {std::pair{5, 5}, {15, 5}, {15, 15}, {5, 15}})
            hole->InsertAtEnd(x * mm, y * mm, nullptr);
        hole->SetIsOuterContour(false);
        M2DSliceVectorBlock* hatches = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
        hatches->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
        hatches->Vectors.push_back(M2DSliceVector(1 * mm, 2 * mm, 19 * mm, 2 * mm));
        hatches->Vectors.push_back(M2DSliceVector(1 * mm, 3 * mm, 19 * mm, 3 * mm));
        stack.AddSlice(slice, true);
    }

    // Code 0: binary CLI, long coordinates; millimetres, 1/1000 mm steps.
    M2DSliceContainerIO io(0);
    if (!io.WriteContainer(stack, path, mm, 1000, nullptr))
    {
        std::fprintf(stderr, "could not write %s\n", StringConversion::NativeToUtf8(path).c_str());
        return 1;
    }

    // Lazy load: one scan pass, then any layer by index.
    M2DSliceContainerIterator layers(path, 0, true, 0, true);
    if (!layers.IsValid())
    {
        std::fprintf(stderr, "could not read %s\n", StringConversion::NativeToUtf8(path).c_str());
        return 1;
    }
    for (const auto& entry : layers.GetLayerTable())
        std::printf("z %.3f mm: %llu contours, length %.1f mm, area %.1f mm2\n", entry.Info.Z / double(mm),
                    static_cast<unsigned long long>(entry.Info.NumContours), entry.Info.ContourLength / mm,
                    entry.Info.SurfaceArea / (double(mm) * mm));
    M2DSlice last;
    layers.GetSlice(last, layers.GetNumSlices() - 1);
    std::printf("last layer: %zu vector blocks\n", last.GetVectors()->GetNumVectorBlocks());
    return 0;
}
