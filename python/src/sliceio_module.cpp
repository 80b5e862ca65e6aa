// The compiled half of the Python module sliceio: layers as numpy arrays in millimetres, a lazy
// build over M2DSliceContainerIterator, whole-file reads and writes through M2DSliceContainerIO.
// Arrays are filled here in one pass over each contour or block; Python never sees a point on
// its own. Every failure becomes sliceio.Error with one line naming the file and the step.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "contracts/M2DSliceStack.h"
#include "contracts/MUnit.h"
#include "contracts/StringConversion.h"
#include "framework/M2DSliceContainerIO.h"
#include "framework/M2DSliceContainerIterator.h"
#include "framework/FormatDescriptor.h"
#include "framework/M2DSliceIOFactory.h"

namespace py = pybind11;

namespace {

// What sliceio.Error carries: one line naming the file and what failed.
struct Failure : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

const double kPerMm = MUnit::GetIE();

std::wstring Wide(const std::string& path)
{
    return StringConversion::Utf8ToNative(path);
}

std::int32_t ToInternal(double mm, const char* what)
{
    const double v = std::round(mm * kPerMm);
    if (!std::isfinite(v) || v <= static_cast<double>(INT32_MIN) || v > static_cast<double>(INT32_MAX))
        throw Failure(std::string(what) + " " + std::to_string(mm) + " mm is out of the range of the library");
    return static_cast<std::int32_t>(v);
}

// ------------------------------------------------------------------- labels
// The label of a contour or block: vector type, part, build style and the other indexes,
// numbers and flags of the library's vector type info (ids below the named range).
struct Label
{
    int VectorType = 0;
    int PartId = 0;
    int Parameter = 0;
    py::dict Indexes;
    py::dict Numbers;
    py::list Flags;
};

void ReadLabel(const M2DSliceVectorTypeInfo& info, Label& label)
{
    label.VectorType = info.GetType();
    label.PartId = info.GetIndex(e2DSliceVectorTypeIndex_Part);
    label.Parameter = info.GetIndex(e2DSliceVectorTypeIndex_Parameter);
    for (int id = 0; id < e2DSliceVectorTypeIndex_Count; ++id)
        if (id != e2DSliceVectorTypeIndex_Part && id != e2DSliceVectorTypeIndex_Parameter && info.GetIndex(id) != 0)
            label.Indexes[py::int_(id)] = info.GetIndex(id);
    for (int id = 0; id < e2DSliceVectorTypeNumber_Count; ++id)
        if (info.GetNumber(id) != 0.0)
            label.Numbers[py::int_(id)] = info.GetNumber(id);
    for (int id = 0; id < e2DSliceVectorTypeFlag_Count; ++id)
        if (info.GetFlag(id))
            label.Flags.append(id);
}

M2DSliceVectorTypeInfo WriteLabel(const Label& label)
{
    M2DSliceVectorTypeInfo info(static_cast<e2DSliceVectorType>(label.VectorType));
    for (const auto& [key, value] : label.Indexes)
        info.SetIndex(key.cast<int>(), value.cast<std::int32_t>());
    for (const auto& [key, value] : label.Numbers)
        info.SetNumber(key.cast<int>(), value.cast<double>());
    for (const auto& flag : label.Flags)
        info.SetFlag(flag.cast<int>(), true);
    if (label.Parameter != 0)
        info.SetIndex(e2DSliceVectorTypeIndex_Parameter, label.Parameter);
    if (label.PartId != 0)
        info.SetIndex(e2DSliceVectorTypeIndex_Part, label.PartId);
    return info;
}

// ------------------------------------------------------------------- geometry
using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;

struct Contour : Label
{
    Array Points; // N x 2, mm
    bool Closed = true;
    bool Outer = true;
};

struct VectorBlock : Label
{
    Array Vectors; // M x 4, mm: x1 y1 x2 y2
};

struct PointBlock : Label
{
    Array Points; // N x 2, mm
};

struct Layer
{
    double HeightMm = 0.0;
    py::list Contours;
    py::list VectorBlocks;
    py::list PointBlocks;
};

// Memory for the arrays of a read, handed out in large chunks. Fresh memory costs a page fault
// per page on first touch, which for arrays of millions of coordinates costs more than filling
// them; a large chunk asks for huge pages instead. Each array keeps its chunk alive, and the
// chunk goes with the last of its arrays.
class Arena
{
public:
    static constexpr std::size_t kReadChunk = std::size_t{64} << 20;

    // chunk: the size of each chunk in bytes; requests larger than that get a chunk of their own.
    explicit Arena(std::size_t chunk) : _chunkSize(chunk) {}

    Array NewArray(std::size_t rows, std::size_t columns)
    {
        const std::size_t bytes = (rows * columns * sizeof(double) + 63) & ~std::size_t{63};
        if (!_chunk || _used + bytes > _chunk->Size)
        {
            // Only chunks of the standard size go back to the cache.
            _chunk = std::make_shared<Chunk>(std::max(bytes, _chunkSize), bytes <= _chunkSize && _chunkSize == kReadChunk);
            _used = 0;
        }
        double* data = reinterpret_cast<double*>(static_cast<char*>(_chunk->Data) + _used);
        _used += bytes;
        auto* owner = new std::shared_ptr<Chunk>(_chunk);
        py::capsule base(owner, [](void* p) { delete static_cast<std::shared_ptr<Chunk>*>(p); });
        return Array({static_cast<py::ssize_t>(rows), static_cast<py::ssize_t>(columns)}, data, base);
    }

private:
    // Mapped chunks of the standard size that no array uses any more, kept for the next read
    // (as an allocator keeps freed memory) with their pages marked free: the kernel takes them
    // back when it needs them, and until then a new read finds them without fresh pages to
    // clear. Touched with the interpreter lock held, like every array.
    struct Cache
    {
        std::vector<void*> Free;
        std::size_t Limit = 32; // chunks: 2 GiB of address space at most
    };
    static Cache& _Cache()
    {
        static Cache* cache = new Cache(); // never destroyed: arrays may outlive the module's statics
        return *cache;
    }

    struct Chunk
    {
        static constexpr std::size_t kHuge = std::size_t{2} << 20;

        Chunk(std::size_t size, bool reusable) : Size(std::max<std::size_t>(size, 64)), _reusable(reusable)
        {
            if (Size >= kHuge)
            {
                Size = (Size + kHuge - 1) & ~(kHuge - 1);
                Cache& cache = _Cache();
                if (_reusable && !cache.Free.empty())
                {
                    Data = cache.Free.back();
                    cache.Free.pop_back();
                    _mapped = true;
                    return;
                }
                void* p = mmap(nullptr, Size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                if (p != MAP_FAILED)
                {
                    madvise(p, Size, MADV_HUGEPAGE);
                    Data = p;
                    _mapped = true;
                    return;
                }
            }
            _reusable = false;
            Data = std::malloc(Size);
            if (!Data)
                throw std::bad_alloc();
        }
        ~Chunk()
        {
            if (!_mapped)
                std::free(Data);
            else if (_reusable && _Cache().Free.size() < _Cache().Limit && madvise(Data, Size, MADV_FREE) == 0)
                _Cache().Free.push_back(Data);
            else
                munmap(Data, Size);
        }
        Chunk(const Chunk&) = delete;
        Chunk& operator=(const Chunk&) = delete;

        std::size_t Size;
        void* Data = nullptr;

    private:
        bool _mapped = false;
        bool _reusable;
    };

    std::size_t _chunkSize;
    std::shared_ptr<Chunk> _chunk;
    std::size_t _used = 0;
};

// Bytes of the arrays of one slice.
std::size_t ArrayBytes(const M2DSlice& slice)
{
    std::size_t values = 0;
    const M2DSliceContourLayer* border = slice.GetSliceBorder();
    for (std::size_t i = 0; i < border->GetNumContours(); ++i)
        values += 2 * std::size_t{border->GetContour(i)->GetNumPoints()} + 8;
    const M2DSliceVectorLayer* vectors = slice.GetVectors();
    for (std::size_t i = 0; i < vectors->GetNumVectorBlocks(); ++i)
        values += 4 * vectors->GetVectorBlock(i)->Vectors.size() + 8;
    const M2DSlicePointLayer* points = slice.GetPoints();
    for (std::size_t i = 0; i < points->GetNumPointBlocks(); ++i)
        values += 2 * points->GetPointBlock(i)->Points.size() + 8;
    return values * sizeof(double);
}

// Internal units to millimetres, x1 y1 x2 y2 per vector; built for wider vector units too,
// chosen when the processor has them.
__attribute__((target_clones("avx2", "default"))) void ConvertVectors(const M2DSliceVector* v, std::size_t n,
                                                                     double* out, double perMm)
{
    for (std::size_t k = 0; k < n; ++k)
    {
        out[4 * k] = v[k].x1 / perMm;
        out[4 * k + 1] = v[k].y1 / perMm;
        out[4 * k + 2] = v[k].x2 / perMm;
        out[4 * k + 3] = v[k].y2 / perMm;
    }
}

// Checks an array handed in from Python: two dimensions, the given number of columns.
Array Checked(const py::handle& object, std::size_t columns, const char* what)
{
    Array array = Array::ensure(object);
    if (!array || array.ndim() != 2 || static_cast<std::size_t>(array.shape(1)) != columns)
        throw Failure(std::string(what) + " must be an N x " + std::to_string(columns) + " array of millimetres");
    return array;
}

Layer ToLayer(const M2DSlice& slice, Arena& arena)
{
    Layer layer;
    layer.HeightMm = slice.GetZ() / kPerMm;
    const M2DSliceContourLayer* border = slice.GetSliceBorder();
    for (std::size_t i = 0; i < border->GetNumContours(); ++i)
    {
        const M2DSliceContour* source = border->GetContour(i);
        Contour contour;
        ReadLabel(source->GetTypeInfo(), contour);
        contour.Closed = source->GetIsClosed();
        contour.Outer = source->GetIsOuterContour();
        contour.Points = arena.NewArray(source->GetNumPoints(), 2);
        double* out = contour.Points.mutable_data();
        const M2DSliceContourPoint* p = source->GetFirstPoint();
        for (std::uint32_t k = 0; k < source->GetNumPoints(); ++k, p = p->GetNextPoint())
        {
            out[2 * k] = p->x / kPerMm;
            out[2 * k + 1] = p->y / kPerMm;
        }
        layer.Contours.append(py::cast(std::move(contour)));
    }
    const M2DSliceVectorLayer* vectors = slice.GetVectors();
    for (std::size_t i = 0; i < vectors->GetNumVectorBlocks(); ++i)
    {
        const M2DSliceVectorBlock* source = vectors->GetVectorBlock(i);
        VectorBlock block;
        ReadLabel(source->GetTypeInfo(), block);
        const std::size_t n = source->Vectors.size();
        block.Vectors = arena.NewArray(n, 4);
        ConvertVectors(source->Vectors.data(), n, block.Vectors.mutable_data(), kPerMm);
        layer.VectorBlocks.append(py::cast(std::move(block)));
    }
    const M2DSlicePointLayer* points = slice.GetPoints();
    for (std::size_t i = 0; i < points->GetNumPointBlocks(); ++i)
    {
        M2DSlicePointBlock* source = points->GetPointBlock(i);
        PointBlock block;
        ReadLabel(source->GetTypeInfo(), block);
        const std::size_t n = source->Points.size();
        block.Points = arena.NewArray(n, 2);
        double* out = block.Points.mutable_data();
        for (std::size_t k = 0; k < n; ++k)
        {
            out[2 * k] = source->Points[k].x / kPerMm;
            out[2 * k + 1] = source->Points[k].y / kPerMm;
        }
        layer.PointBlocks.append(py::cast(std::move(block)));
    }
    return layer;
}

void FillSlice(const Layer& layer, M2DSlice& slice)
{
    slice.SetZ(ToInternal(layer.HeightMm, "height"));
    for (const py::handle item : layer.Contours)
    {
        const Contour& source = item.cast<const Contour&>();
        const Array points = Checked(source.Points, 2, "contour points");
        const double* in = points.data();
        M2DSliceContour* contour = slice.GetSliceBorderUpdate()->AddContourAtEnd();
        contour->SetTypeInfo(WriteLabel(source));
        contour->SetIsClosed(source.Closed);
        contour->SetIsOuterContour(source.Outer);
        for (py::ssize_t k = 0; k < points.shape(0); ++k)
            contour->InsertAtEnd(ToInternal(in[2 * k], "x"), ToInternal(in[2 * k + 1], "y"), nullptr);
    }
    for (const py::handle item : layer.VectorBlocks)
    {
        const VectorBlock& source = item.cast<const VectorBlock&>();
        const Array vectors = Checked(source.Vectors, 4, "vectors");
        const double* in = vectors.data();
        M2DSliceVectorBlock* block = slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
        block->SetTypeInfo(WriteLabel(source));
        block->Vectors.reserve(static_cast<std::size_t>(vectors.shape(0)));
        for (py::ssize_t k = 0; k < vectors.shape(0); ++k)
            block->Vectors.emplace_back(ToInternal(in[4 * k], "x1"), ToInternal(in[4 * k + 1], "y1"),
                                        ToInternal(in[4 * k + 2], "x2"), ToInternal(in[4 * k + 3], "y2"));
    }
    for (const py::handle item : layer.PointBlocks)
    {
        const PointBlock& source = item.cast<const PointBlock&>();
        const Array points = Checked(source.Points, 2, "points");
        const double* in = points.data();
        M2DSlicePointBlock* block = slice.GetPointsUpdate()->AddPointBlockAtEnd();
        block->SetTypeInfo(WriteLabel(source));
        for (py::ssize_t k = 0; k < points.shape(0); ++k)
            block->Points.push_back(M2DSlicePoint(ToInternal(in[2 * k], "x"), ToInternal(in[2 * k + 1], "y")));
    }
    // The library's writers take the layer's box from the slice.
    slice.GetXYArea(true);
}

// ------------------------------------------------------------------- failures
// Drives the reader step by step to say which step of reading the file failed.
std::string DescribeReadFailure(short code, const std::string& name, const std::string& path,
                                const std::string& caught)
{
    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(code);
    if (!io)
        return path + ": " + name + " files (code " + std::to_string(code) + ") cannot be read by this build";
    std::string step = "opening";
    try
    {
        if (!io->OpenFile(Wide(path), I2DSliceIO::Read))
            return path + ": opening: the " + name + " reader could not open the file";
        step = "header";
        if (!io->ReadHeader(nullptr))
            return path + ": header: the " + name + " reader refused the header";
        M2DSliceContainerScanInfo info;
        for (std::uint64_t layer = 0;; ++layer)
        {
            step = "layer " + std::to_string(layer);
            info.Clear();
            if (!io->ScanLayer(info, nullptr, true))
                break;
        }
        step = "footer";
        if (!io->ReadFooter(nullptr))
            return path + ": footer: the " + name + " reader refused the end of the file";
        io->CloseFile();
    }
    catch (const std::exception& e)
    {
        return path + ": " + step + ": the " + name + " reader stopped: " + e.what();
    }
    return path + ": reading as " + name + " failed" + (caught.empty() ? "" : ": " + caught);
}

// ------------------------------------------------------------------- lazy build
// Scans with vectors, so that the totals count vector blocks as 'sliceio info' does.
class ScanningIterator : public M2DSliceContainerIterator
{
public:
    ScanningIterator(const std::string& path, short code)
        : M2DSliceContainerIterator(Wide(path), static_cast<unsigned short>(code), true, 0, false)
    {
        _ScanFile();
    }

protected:
    bool _ScanLayer(M2DSliceContainerScanInfo& info) const override { return _io->ScanLayer(info, nullptr, true); }
};

py::object Millimetres(double internal, bool present = true)
{
    return present && std::isfinite(internal / kPerMm) ? py::object(py::float_(internal / kPerMm)) : py::none();
}

py::object SquareMillimetres(double internal)
{
    const double v = internal / (kPerMm * kPerMm);
    return std::isfinite(v) ? py::object(py::float_(v)) : py::none();
}

// The file's own layer thickness where the format records one, else the median step
// between consecutive heights; none for fewer than two layers.
py::object LayerThickness(const M2DSliceContainerIterator& it)
{
    const auto& table = it.GetLayerTable();
    if (table.size() < 2)
        return py::none();
    if (it.GetSliceParameters()->LayerThickness > 0)
        return Millimetres(it.GetSliceParameters()->LayerThickness);
    std::vector<std::int64_t> steps;
    for (std::size_t i = 1; i < table.size(); ++i)
    {
        const std::int64_t step = static_cast<std::int64_t>(table[i].Info.Z) - table[i - 1].Info.Z;
        if (step > 0)
            steps.push_back(step);
    }
    if (steps.empty())
        return py::none();
    std::nth_element(steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2), steps.end());
    return Millimetres(static_cast<double>(steps[steps.size() / 2]));
}

class LazyBuild
{
public:
    LazyBuild(const std::string& path, short code, const std::string& name) : _path(path), _code(code), _name(name)
    {
        try
        {
            _it = std::make_unique<ScanningIterator>(path, code);
        }
        catch (const std::exception& e)
        {
            throw Failure(DescribeReadFailure(code, name, path, e.what()));
        }
        if (!_it->IsValid())
            throw Failure(DescribeReadFailure(code, name, path, ""));
    }

    std::size_t Size() const { return _it->GetLayerTable().size(); }

    Layer Get(py::ssize_t index) const
    {
        const py::ssize_t n = static_cast<py::ssize_t>(Size());
        if (index < 0)
            index += n;
        if (index < 0 || index >= n)
            throw py::index_error("layer index out of range");
        M2DSlice slice;
        try
        {
            _it->GetSlice(slice, static_cast<std::uint64_t>(index));
        }
        catch (const std::exception& e)
        {
            throw Failure(_path + ": layer " + std::to_string(index) + ": the " + _name + " reader stopped: " + e.what());
        }
        Arena arena(ArrayBytes(slice));
        return ToLayer(slice, arena);
    }

    std::vector<double> Heights() const
    {
        std::vector<double> z;
        for (const auto& entry : _it->GetLayerTable())
            z.push_back(entry.Info.Z / kPerMm);
        return z;
    }

    py::dict Info() const
    {
        const auto& table = _it->GetLayerTable();
        const M2DSliceContainerScanInfo& totals = _it->GetTotals();
        py::dict out;
        out["file"] = _path;
        out["format"] = _name;
        out["type_code"] = _code;
        out["layers"] = table.size();
        bool present = false;
        double zMin = 0, zMax = 0;
        for (const auto& entry : table)
        {
            zMin = present ? std::min<double>(zMin, entry.Info.Z) : entry.Info.Z;
            zMax = present ? std::max<double>(zMax, entry.Info.Z) : entry.Info.Z;
            present = true;
        }
        out["z_min_mm"] = Millimetres(zMin, present);
        out["z_max_mm"] = Millimetres(zMax, present);
        out["layer_thickness_mm"] = LayerThickness(*_it);
        const bool area = !totals.Area.IsEmpty();
        out["x_min_mm"] = Millimetres(totals.Area.XMin, area);
        out["x_max_mm"] = Millimetres(totals.Area.XMax, area);
        out["y_min_mm"] = Millimetres(totals.Area.YMin, area);
        out["y_max_mm"] = Millimetres(totals.Area.YMax, area);
        out["contours"] = totals.NumContours;
        out["vector_blocks"] = totals.NumVectorBlocks;
        out["contour_length_mm"] = Millimetres(totals.ContourLength);
        out["surface_area_mm2"] = SquareMillimetres(totals.SurfaceArea);
        return out;
    }

    const ISource2DSlices& Source() const { return *_it; }
    std::int32_t FileResolution() const
    {
        M2DSliceContainerIOProperties properties;
        _it->GetSliceIO()->GetIoProperties(properties);
        return properties.InverseResolution > 1 ? properties.InverseResolution : 0;
    }
    std::int32_t FileUnit() const
    {
        M2DSliceContainerIOProperties properties;
        _it->GetSliceIO()->GetIoProperties(properties);
        return properties.UnitConversionFactor;
    }

private:
    std::string _path;
    short _code;
    std::string _name;
    std::unique_ptr<ScanningIterator> _it;
};

// ------------------------------------------------------------------- whole reads
// Hands each slice read to Python as a layer of numpy arrays, as it arrives.
class LayerTarget : public ITarget2DSlices
{
public:
    M2DSlice* AddSlice(M2DSlice& slice, bool /*take*/) override
    {
        Layers.append(py::cast(ToLayer(slice, _arena)));
        return nullptr;
    }
    PersistentProperties* GetProperties() override { return &Properties; }

    py::list Layers;
    PersistentProperties Properties;

private:
    Arena _arena{Arena::kReadChunk};
};

struct ReadResult
{
    py::list Layers;
    std::int32_t UnitConversion = 0;
    std::int32_t InverseResolution = 0;
};

std::shared_ptr<I2DSliceIO> MakeIO(short code, const std::string& path, const std::string& name, const char* use)
{
    std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(code);
    if (!io)
        throw Failure(path + ": " + name + " files (code " + std::to_string(code) + ") cannot be " + use +
                      " by this build");
    return io;
}

ReadResult ReadLayers(const std::string& path, short code, const std::string& name)
{
    std::shared_ptr<I2DSliceIO> io = MakeIO(code, path, name, "read");
    M2DSliceContainerIO driver(io);
    LayerTarget target;
    bool ok = false;
    std::string caught;
    try
    {
        ok = driver.ReadContainer(target, Wide(path), true);
    }
    catch (const std::exception& e)
    {
        caught = e.what();
    }
    if (!ok)
        throw Failure(DescribeReadFailure(code, name, path, caught));
    ReadResult result;
    result.Layers = target.Layers;
    M2DSliceContainerIOProperties properties;
    io->GetIoProperties(properties);
    result.UnitConversion = properties.UnitConversionFactor;
    result.InverseResolution = properties.InverseResolution;
    return result;
}

// ------------------------------------------------------------------- writes
struct WriteOptions
{
    short Code = 0;
    std::string Name;
    std::int32_t UnitConversion = 10000;
    std::int32_t InverseResolution = 1000;
    bool WriteEmptyLayers = false;
};

void Write(const ISource2DSlices& source, const std::string& path, const WriteOptions& options)
{
    std::shared_ptr<I2DSliceIO> io = MakeIO(options.Code, path, options.Name, "written");
    I2DSliceIO::WriteOptions writeOptions;
    writeOptions.WriteEmptyLayers = options.WriteEmptyLayers;
    io->SetWriteOptions(writeOptions);
    M2DSliceContainerIO driver(io);
    bool ok = false;
    std::string reason;
    try
    {
        ok = driver.WriteContainer(source, Wide(path), options.UnitConversion, options.InverseResolution, nullptr);
    }
    catch (const std::exception& e)
    {
        reason = e.what();
    }
    if (!ok)
        throw Failure(path + ": writing as " + options.Name + " failed" + (reason.empty() ? "" : ": " + reason));
}

void WriteLayers(const py::iterable& layers, const std::string& path, const WriteOptions& options)
{
    M2DSliceStack stack;
    std::size_t index = 0;
    for (const py::handle item : layers)
    {
        M2DSlice slice;
        try
        {
            FillSlice(item.cast<const Layer&>(), slice);
        }
        catch (const py::cast_error&)
        {
            throw Failure(path + ": item " + std::to_string(index) +
                          " is not a sliceio.Layer of sliceio.Contour, VectorBlock and PointBlock objects");
        }
        stack.AddSlice(slice, true);
        ++index;
    }
    Write(stack, path, options);
}

// A range of the source's layers, without the empty ones when asked.
class LayerSelection : public ISource2DSlices
{
public:
    LayerSelection(const ISource2DSlices& source, std::uint64_t first, std::uint64_t end, bool dropEmpty)
        : _source(source)
    {
        M2DSlice slice;
        for (std::uint64_t i = first; i < end && i < source.GetNumSlices(); ++i)
        {
            if (dropEmpty)
            {
                source.GetSlice(slice, i);
                if (slice.IsEmpty())
                    continue;
            }
            _index.push_back(i);
        }
    }

protected:
    std::int32_t _OnGetSliceThickness() const override { return _source.GetSliceThickness(); }
    const MSliceFileParameters* _OnGetSliceParameters() const override { return _source.GetSliceParameters(); }
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override { return _source.GetSliceIOParameters(); }
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override { return _source.GetXYArea(_index[i]); }
    std::uint64_t _OnGetNumSlices() const override { return _index.size(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override
    {
        return M2DSliceZArea(_source.GetSliceZPosition(_index[i]));
    }
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override { return _source.GetSlice(_index[i]); }
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override { _source.GetSlice(slice, _index[i]); }
    const PersistentProperties* _OnGetProperties() const override { return _source.GetProperties(); }

private:
    const ISource2DSlices& _source;
    std::vector<std::uint64_t> _index;
};

// Reads src whole into a stack, keeps the asked layers and writes them to dst.
py::dict Convert(const std::string& src, short srcCode, const std::string& srcName, const std::string& dst,
                 WriteOptions options, bool defaultResolution, std::uint64_t first, std::uint64_t end,
                 bool dropEmpty)
{
    std::shared_ptr<I2DSliceIO> io = MakeIO(srcCode, src, srcName, "read");
    M2DSliceContainerIO reader(io);
    M2DSliceStack stack;
    bool ok = false;
    std::string caught;
    try
    {
        ok = reader.ReadContainer(stack, Wide(src), true);
    }
    catch (const std::exception& e)
    {
        caught = e.what();
    }
    if (!ok)
        throw Failure(DescribeReadFailure(srcCode, srcName, src, caught));
    if (defaultResolution)
    {
        // The input's own step, else 1/1000 mm.
        M2DSliceContainerIOProperties properties;
        io->GetIoProperties(properties);
        double step = MUnit::GetIE() / 1000.0;
        if (properties.InverseResolution > 1)
            step = static_cast<double>(properties.UnitConversionFactor) / properties.InverseResolution;
        options.InverseResolution =
            static_cast<std::int32_t>(std::clamp(std::lround(options.UnitConversion / step), 1L, long{INT32_MAX}));
    }
    const LayerSelection selection(stack, first, end, dropEmpty);
    Write(selection, dst, options);
    py::dict out;
    out["layers"] = selection.GetNumSlices();
    out["type_code"] = options.Code;
    out["format"] = options.Name;
    out["resolution"] = options.InverseResolution;
    return out;
}

} // namespace

PYBIND11_MODULE(_sliceio, m)
{
    m.doc() = "Compiled core of sliceio: the library's readers and writers with numpy arrays in millimetres";
    static py::exception<Failure> error(m, "Error", PyExc_RuntimeError);
    py::register_exception_translator([](std::exception_ptr p) {
        try
        {
            if (p)
                std::rethrow_exception(p);
        }
        catch (const Failure& e)
        {
            PyErr_SetString(error.ptr(), e.what());
        }
    });

    m.def("available", [](short code) { return M2DSliceIOFactory::GetSliceIO(code) != nullptr; },
          "True when this build makes a reader or writer for the file-type code");
    m.attr("units_per_mm") = MUnit::GetIE();
    m.def("code_table", [] {
        py::list rows;
        for (const FormatCodeRow& row : FormatRegistry::Codes())
            rows.append(py::make_tuple(row.Code, row.Name, row.Extensions, !row.Reads));
        return rows;
    }, "The format families' code rows: (code, name, extensions, written only)");
    m.def("sniff", [](py::bytes head) {
        const std::string bytes = head;
        short code = -1;
        if (!FormatRegistry::Sniff(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), code))
            return py::object(py::none());
        return py::object(py::int_(code));
    }, "The code of the format the first bytes of a file show, or None");
    m.attr("sniff_bytes") = kSniffBytes;

    const auto label = [](auto& cls) {
        using T = typename std::remove_reference_t<decltype(cls)>::type;
        cls.def_readwrite("vector_type", &T::VectorType)
            .def_readwrite("part_id", &T::PartId)
            .def_readwrite("parameter", &T::Parameter, "build-style or parameter index")
            .def_readwrite("indexes", &T::Indexes, "other indexes of the label, by id")
            .def_readwrite("numbers", &T::Numbers, "numbers of the label, by id")
            .def_readwrite("flags", &T::Flags, "ids of the flags that are set");
    };
    const auto setLabel = [](Label& l, int type, int part, int parameter, py::object indexes, py::object numbers,
                             py::object flags) {
        l.VectorType = type;
        l.PartId = part;
        l.Parameter = parameter;
        l.Indexes = indexes.is_none() ? py::dict() : py::dict(indexes);
        l.Numbers = numbers.is_none() ? py::dict() : py::dict(numbers);
        l.Flags = flags.is_none() ? py::list() : py::list(flags);
    };

    py::class_<Contour> contour(m, "Contour", "A contour: points (N x 2, mm), closed and outer flags, label");
    contour
        .def(py::init([setLabel](py::object points, bool closed, bool outer, int type, int part, int parameter,
                                 py::object indexes, py::object numbers, py::object flags) {
                 Contour c;
                 c.Points = Checked(points, 2, "contour points");
                 c.Closed = closed;
                 c.Outer = outer;
                 setLabel(c, type, part, parameter, indexes, numbers, flags);
                 return c;
             }),
             py::arg("points"), py::arg("closed") = true, py::arg("outer") = true,
             py::arg("vector_type") = static_cast<int>(e2DSliceVectorType_Border), py::arg("part_id") = 0,
             py::arg("parameter") = 0, py::arg("indexes") = py::none(), py::arg("numbers") = py::none(),
             py::arg("flags") = py::none())
        .def_readwrite("points", &Contour::Points)
        .def_readwrite("closed", &Contour::Closed)
        .def_readwrite("outer", &Contour::Outer)
        .def("__repr__", [](const Contour& c) {
            return "<Contour " + std::to_string(c.Points.shape(0)) + " points, " + (c.Closed ? "closed" : "open") +
                   ", " + (c.Outer ? "outer" : "inner") + ", type " + std::to_string(c.VectorType) + ", part " +
                   std::to_string(c.PartId) + ">";
        });
    label(contour);

    py::class_<VectorBlock> vectors(m, "VectorBlock", "Hatch vectors: M x 4 array (mm) of x1 y1 x2 y2, label");
    vectors
        .def(py::init([setLabel](py::object array, int type, int part, int parameter, py::object indexes,
                                 py::object numbers, py::object flags) {
                 VectorBlock b;
                 b.Vectors = Checked(array, 4, "vectors");
                 setLabel(b, type, part, parameter, indexes, numbers, flags);
                 return b;
             }),
             py::arg("vectors"), py::arg("vector_type") = static_cast<int>(e2DSliceVectorType_Hatch),
             py::arg("part_id") = 0, py::arg("parameter") = 0, py::arg("indexes") = py::none(),
             py::arg("numbers") = py::none(), py::arg("flags") = py::none())
        .def_readwrite("vectors", &VectorBlock::Vectors)
        .def("__repr__", [](const VectorBlock& b) {
            return "<VectorBlock " + std::to_string(b.Vectors.shape(0)) + " vectors, type " +
                   std::to_string(b.VectorType) + ", part " + std::to_string(b.PartId) + ">";
        });
    label(vectors);

    py::class_<PointBlock> points(m, "PointBlock", "Points: N x 2 array (mm), label");
    points
        .def(py::init([setLabel](py::object array, int type, int part, int parameter, py::object indexes,
                                 py::object numbers, py::object flags) {
                 PointBlock b;
                 b.Points = Checked(array, 2, "points");
                 setLabel(b, type, part, parameter, indexes, numbers, flags);
                 return b;
             }),
             py::arg("points"), py::arg("vector_type") = static_cast<int>(e2DSliceVectorType_None),
             py::arg("part_id") = 0, py::arg("parameter") = 0, py::arg("indexes") = py::none(),
             py::arg("numbers") = py::none(), py::arg("flags") = py::none())
        .def_readwrite("points", &PointBlock::Points)
        .def("__repr__", [](const PointBlock& b) {
            return "<PointBlock " + std::to_string(b.Points.shape(0)) + " points, type " +
                   std::to_string(b.VectorType) + ">";
        });
    label(points);

    py::class_<Layer>(m, "Layer", "One layer: height (mm), contours, vector blocks and point blocks")
        .def(py::init([](double height, py::object c, py::object v, py::object p) {
                 Layer l;
                 l.HeightMm = height;
                 l.Contours = c.is_none() ? py::list() : py::list(c);
                 l.VectorBlocks = v.is_none() ? py::list() : py::list(v);
                 l.PointBlocks = p.is_none() ? py::list() : py::list(p);
                 return l;
             }),
             py::arg("height_mm"), py::arg("contours") = py::none(), py::arg("vector_blocks") = py::none(),
             py::arg("point_blocks") = py::none())
        .def_readwrite("height_mm", &Layer::HeightMm)
        .def_readwrite("contours", &Layer::Contours)
        .def_readwrite("vector_blocks", &Layer::VectorBlocks)
        .def_readwrite("point_blocks", &Layer::PointBlocks)
        .def("__repr__", [](const Layer& l) {
            return "<Layer at " + std::to_string(l.HeightMm) + " mm: " + std::to_string(py::len(l.Contours)) +
                   " contours, " + std::to_string(py::len(l.VectorBlocks)) + " vector blocks, " +
                   std::to_string(py::len(l.PointBlocks)) + " point blocks>";
        });

    py::class_<LazyBuild>(m, "LazyBuild")
        .def(py::init<const std::string&, short, const std::string&>())
        .def("__len__", &LazyBuild::Size)
        .def("layer", &LazyBuild::Get)
        .def("heights", &LazyBuild::Heights)
        .def("info", &LazyBuild::Info)
        .def("file_resolution", &LazyBuild::FileResolution)
        .def("file_unit", &LazyBuild::FileUnit)
        .def("write", [](const LazyBuild& b, const std::string& path, short code, const std::string& name,
                         std::int32_t unit, std::int32_t resolution, bool empty) {
            Write(b.Source(), path, WriteOptions{code, name, unit, resolution, empty});
        });

    m.def("read_layers", [](const std::string& path, short code, const std::string& name) {
        ReadResult r = ReadLayers(path, code, name);
        return py::make_tuple(r.Layers, r.UnitConversion, r.InverseResolution);
    });
    m.def("write_layers", [](const py::iterable& layers, const std::string& path, short code, const std::string& name,
                             std::int32_t unit, std::int32_t resolution, bool empty) {
        WriteLayers(layers, path, WriteOptions{code, name, unit, resolution, empty});
    });
    m.def("convert", [](const std::string& src, short srcCode, const std::string& srcName, const std::string& dst,
                        short code, const std::string& name, std::int32_t unit, std::int32_t resolution, bool empty,
                        std::uint64_t first, std::uint64_t end, bool dropEmpty) {
        return Convert(src, srcCode, srcName, dst, WriteOptions{code, name, unit, resolution, empty}, resolution <= 0,
                       first, end, dropEmpty);
    });
}
