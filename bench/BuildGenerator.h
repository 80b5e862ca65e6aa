#pragma once
// A deterministic, realistic build for the benchmarks: layers of tube-like parts, each an outer
// contour with a hole, hatched by parallel lines whose direction turns from layer to layer and
// which are split into stripes, one vector block per stripe.
//
// The geometry repeats every DistinctLayers layers; those few layers are built once, on first
// use, and each slice handed out is a copy with its own height. So a build of thousands of
// layers costs the memory of a handful, and a copy is all the time a layer takes.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "contracts/M2DSliceSource.h"

struct BuildShape
{
    std::uint64_t NumLayers = 1000;
    std::size_t VectorsPerLayer = 50000; // reached within a few per cent
    int Parts = 6;
    int PointsPerOuter = 72;
    int PointsPerHole = 36;
    int BlocksPerPart = 4;
    std::int32_t LayerThickness = 300; // internal units: 30 micrometres
    int DistinctLayers = 8;
};

class BuildGenerator : public ISource2DSlices
{
public:
    explicit BuildGenerator(const BuildShape& shape = BuildShape());

    const BuildShape& GetShape() const { return _shape; }
    std::uint64_t GetTotalNumVectors() const;
    std::uint64_t GetTotalNumContourPoints() const;

protected:
    std::int32_t _OnGetSliceThickness() const override { return _shape.LayerThickness; }
    std::uint64_t _OnGetNumSlices() const override { return _shape.NumLayers; }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override;
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override;
    M2DSliceXYArea _OnGetXYArea() const override;
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override;
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override;

private:
    const M2DSlice& _Template(std::uint64_t i) const;
    void _BuildTemplate(M2DSlice& slice, int index) const;

    BuildShape _shape;
    mutable std::vector<std::unique_ptr<M2DSlice>> _templates;
};

// A binary CLI file (long form, 1/1000 mm steps) written once from a generated build.
struct BenchFile
{
    std::wstring Path;
    std::string NarrowPath;
    std::uint64_t Bytes = 0;
    std::uint64_t Layers = 0;
    std::uint64_t Vectors = 0;
    bool Written = false;
};
BenchFile WriteBenchFile(const BuildShape& shape, const std::string& name);

// Layer count of the benchmark builds: SLICEIO_BENCH_LAYERS when set (for quick or profiled
// runs), else the given default.
std::uint64_t BenchLayers(std::uint64_t fallback);

// A file under /tmp for this process, removed when the process ends.
std::wstring BenchTempPath(const std::string& name);
