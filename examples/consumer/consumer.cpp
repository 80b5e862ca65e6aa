// Writes a small build as binary CLI through the installed library, loads it back lazily and
// checks what comes back. Exit status 0 when every check holds.
//
//   consumer OUT.cli
#include <cstdio>
#include <string>

#include <contracts/M2DSliceStack.h>
#include <contracts/StringConversion.h>
#include <framework/M2DSliceContainerIO.h>
#include <framework/M2DSliceContainerIterator.h>
#include <framework/M2DSliceIOFactory.h>

namespace {

int Fail(const char* what)
{
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2)
        return Fail("usage: consumer OUT.cli");
    const std::wstring path = StringConversion::Utf8ToNative(argv[1]);
    const int mm = MUnit::GetIE();

    // Five layers 0.1 mm apart: a 10 mm square and three hatch lines.
    M2DSliceStack stack;
    for (int i = 1; i <= 5; ++i)
    {
        M2DSlice slice;
        slice.SetZ(i * mm / 10);
        M2DSliceContour* square = slice.GetSliceBorderUpdate()->AddContourAtEnd();
        for (auto [x, y] : {std::pair{0, 0}, {0, 10}, {10, 10}, {10, 0}})
            square->InsertAtEnd(x * mm, y * mm, nullptr);
        M2DSliceVectorBlock* hatch = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
        hatch->SetTypeInfo(M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
        for (int k = 1; k <= 3; ++k)
            hatch->Vectors.push_back(M2DSliceVector(1 * mm, k * mm, 9 * mm, k * mm));
        stack.AddSlice(slice, true);
    }

    std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(0);
    if (!io)
        return Fail("the factory has no writer for code 0");
    M2DSliceContainerIO writer(io);
    if (!writer.WriteContainer(stack, path, mm, 1000, nullptr))
        return Fail("writing the CLI file failed");

    M2DSliceContainerIterator layers(path, 0, true, 0, true);
    if (!layers.IsValid() || layers.GetNumSlices() != 5)
        return Fail("the lazy load did not find five layers");
    M2DSlice third;
    layers.GetSlice(third, 2);
    if (third.GetZ() != 3 * mm / 10)
        return Fail("layer 2 is not at 0.3 mm");
    if (third.GetSliceBorder()->GetNumContours() != 1)
        return Fail("layer 2 has not one contour");
    const M2DSliceVectorLayer* vectors = third.GetVectors();
    if (vectors->GetNumVectorBlocks() != 1 || vectors->GetVectorBlock(0)->Vectors.size() != 3)
        return Fail("layer 2 has not one block of three hatch vectors");
    if (vectors->GetVectorBlock(0)->Vectors[1] != M2DSliceVector(1 * mm, 2 * mm, 9 * mm, 2 * mm))
        return Fail("the second hatch vector came back moved");
    if (vectors->GetVectorBlock(0)->GetTypeInfo().GetType() != e2DSliceVectorType_Hatch)
        return Fail("the hatch block lost its vector type");
    std::printf("consumer: %llu layers written and read back, contour length %.1f mm\n",
                static_cast<unsigned long long>(layers.GetNumSlices()), layers.GetTotalContourLength() / mm);
    return 0;
}
